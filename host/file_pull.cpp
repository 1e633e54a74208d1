#include "host/file_pull.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>

#include "host/limits.h"

namespace orla::host {

namespace {

using Velt::MsgProto;

constexpr uint16_t kRequestTypeFile = 14;
constexpr const char* kEndText = "game_over";

std::string Message(uint16_t msgType, uint16_t status, const std::string& data) {
    MsgProto header = {};
    header.magic = Velt::kMsgMagic;
    header.version = Velt::kMsgVersion;
    header.type = kRequestTypeFile;
    header.totalLen = static_cast<uint32_t>(data.size());
    header.sliceLen = header.totalLen;
    header.msgType = msgType;
    header.status = status;
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + data;
}

}  // namespace

std::filesystem::path PathBelow(const std::filesystem::path& dir, const std::string& name) {
    std::filesystem::path path = dir;
    size_t parts = 0;
    for (size_t begin = 0; begin <= name.size();) {
        const size_t end = std::min(name.find('/', begin), name.size());
        const std::string part = name.substr(begin, end - begin);
        begin = end + 1;
        if (part.empty()) {
            continue;
        }
        if (part == "." || part == ".." || part.find('\0') != std::string::npos) {
            return {};
        }
        path /= part;
        ++parts;
    }
    return parts > 0 && parts <= limits::kNameParts && name.back() != '/' ? path
                                                                          : std::filesystem::path();
}

PullEnd FilePull::Run(Session& session, const std::string& type) {
    if (!session.Send(Message(Velt::kMsgData, Velt::kMsgStatusNone, type))) {
        reason_ = "the request could not be sent";
        return PullEnd::kBroken;
    }
    bool answered = false;
    while (true) {
        std::string bytes;
        const ReceiveResult result = session.Receive(options_.idleTimeoutMs, &bytes);
        if (result != ReceiveResult::kMessage) {
            if (ended_ && result != ReceiveResult::kTimeout) {
                return PullEnd::kDone;
            }
            static_cast<void>(EndTextWasAName());
            if (result == ReceiveResult::kClosed && !answered) {
                return PullEnd::kNoAnswer;
            }
            static_cast<void>(Fail(result == ReceiveResult::kTimeout
                                       ? "the device fell silent"
                                       : "the session ended before the last file"));
            return PullEnd::kBroken;
        }
        answered = true;
        switch (Take(session, bytes)) {
            case Step::kGoOn:
                break;
            case Step::kRefused:
                return PullEnd::kRefused;
            case Step::kFailed:
                return PullEnd::kBroken;
        }
    }
}

FilePull::Step FilePull::Fail(const std::string& reason) {
    reason_ = reason;
    if (open_) {
        Drop(reason);
    }
    return Step::kFailed;
}

FilePull::Step FilePull::Take(Session& session, const std::string& bytes) {
    // A packed structure needs no alignment.
    const auto& message = *reinterpret_cast<const MsgProto*>(bytes.data());
    if (bytes.size() < sizeof(MsgProto) || bytes.size() - sizeof(MsgProto) != message.sliceLen ||
        message.magic != Velt::kMsgMagic || message.version != Velt::kMsgVersion ||
        message.type != kRequestTypeFile) {
        return Fail("the device sent what is no message");
    }
    const bool hasContent = message.msgType != Velt::kMsgControl && message.sliceLen > 0;
    controls_ = hasContent ? 0 : controls_ + 1;
    if (controls_ > limits::kControlMessages) {
        return Fail("the device sends nothing but messages without content");
    }
    if (message.msgType == Velt::kMsgControl) {
        const Step step = EndTextWasAName();
        if (open_) {
            Drop("the device broke off");
        }
        return step;
    }
    return message.status == Velt::kMsgStatusNone ? TakeSlice(session, message) : TakeText(message);
}

FilePull::Step FilePull::TakeText(const MsgProto& message) {
    const std::string text(message.data, strnlen(message.data, message.sliceLen));
    if (message.status == Velt::kMsgStatusRefused) {
        reason_ = text;
        return Step::kRefused;
    }
    // A file of that name is told from the end by what follows: something, or nothing.
    const Step step = EndTextWasAName();
    if (open_) {
        Drop("the device went on to the next file");
    }
    ended_ = text == kEndText;
    return ended_ || step != Step::kGoOn ? step : Begin(text);
}

FilePull::Step FilePull::TakeSlice(Session& session, const MsgProto& message) {
    if (EndTextWasAName() != Step::kGoOn) {
        return Step::kFailed;
    }
    if (!open_) {
        return Fail("the device sent content without a name");
    }
    PulledFile& file = files_.back();
    if (message.offset != file.bytes || message.totalLen < message.offset ||
        (file.bytes > 0 && message.totalLen != file.size) ||
        message.sliceLen > message.totalLen - message.offset) {
        return Fail("the device sent slices that do not fit together");
    }
    file.size = message.totalLen;
    Write(message.data, message.sliceLen);
    file.bytes += message.sliceLen;
    if (options_.progress) {
        options_.progress(file);
    }
    if (file.bytes < file.size) {
        return Step::kGoOn;
    }
    Finish();
    if (!session.Send(Message(Velt::kMsgControl, Velt::kMsgStatusGoOn, ""))) {
        return Fail("the acknowledgement could not be sent");
    }
    return Step::kGoOn;
}

FilePull::Step FilePull::EndTextWasAName() {
    if (!ended_) {
        return Step::kGoOn;
    }
    ended_ = false;
    return Begin(kEndText);
}

FilePull::Step FilePull::Begin(const std::string& name) {
    if (name.size() > limits::kName || files_.size() >= limits::kPulledFiles) {
        return Fail("the device sent a name that is too long, or too many files");
    }
    open_ = true;
    files_.emplace_back();
    files_.back().name = name;
    if (options_.listOnly) {
        return Step::kGoOn;
    }
    std::string* const problem = &files_.back().problem;
    const auto target = PathBelow(options_.dir, name);
    std::error_code error;
    if (target.empty()) {
        *problem = "the name would leave the directory";
    } else if (!targets_.insert(target).second) {
        *problem = "an earlier file has this name";
    } else if (std::filesystem::create_directories(target.parent_path(), error); error) {
        *problem = error.message();
    } else {
        out_ = NewFile::Open(target, problem);
    }
    return Step::kGoOn;
}

void FilePull::Write(const char* data, size_t size) {
    if (out_ != nullptr) {
        files_.back().problem = out_->Write(data, size);
    }
    if (!files_.back().problem.empty()) {
        out_.reset();
    }
}

void FilePull::Finish() {
    open_ = false;
    if (const auto whole = std::move(out_); whole != nullptr) {
        files_.back().problem = whole->Keep(false);
    }
}

void FilePull::Drop(const std::string& problem) {
    open_ = false;
    if (files_.back().problem.empty()) {
        files_.back().problem = problem;
    }
    out_.reset();
}

}  // namespace orla::host
