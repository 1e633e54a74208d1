// No generated type is named here: what the codec cannot find by name, a host cannot send.
#include "proto/codec.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <sstream>

#include "hdc/test_support.h"

namespace analysis::nedra::message {
namespace {

using google::protobuf::Message;
using google::protobuf::TextFormat;
using google::protobuf::util::MessageDifferencer;
using Lines = std::vector<std::string>;
using namespace std::string_literals;

std::string Named(const std::string& type) {
    return "analysis.nedra.proto." + type;
}

// An envelope with whatever name, its zero included if the caller wants one.
std::string Envelope(const std::string& name, const std::string& body) {
    const auto high = static_cast<char>(name.size() >> 8);
    const auto low = static_cast<char>(name.size());
    return std::string{0, 0, high, low} + name + body;
}

std::shared_ptr<Message> Make(const std::string& type, const std::string& fields) {
    auto message = CreateMessage(Named(type));
    EXPECT_NE(nullptr, message) << type;
    EXPECT_TRUE(TextFormat::ParseFromString(fields, message.get())) << type;
    return message;
}

// The wire contract of what is really exchanged: names, field numbers and types, to the byte.
TEST(Codec, LiveMessagesKeepTheirBytesAndComeBack) {
    struct Case {
        const char* type;
        const char* fields;
        std::string body;
    };
    const std::string header = "\x0a\x03\x12\x01"s + "c";
    const Case cases[] = {
        {"CtrlChannelHandshake", "jobId: 'j' devId: 1 mode: 'm'", "\x0a\x01j\x10\x01\x1a\x01m"},
        {"DataChannelHandshake", "jobId: 'j' devId: 1 mode: 'm'", "\x0a\x01j\x10\x01\x1a\x01m"},
        {"JobStartReq", "Hdr { job_ctx: 'c' } SampleConfig: 's'", header + "\x12\x01s"},
        {"JobStopReq", "Hdr { job_ctx: 'c' } JobId: 'j'", header + "\x12\x01j"},
        {"ReplayStartReq",
         "Hdr { job_ctx: 'c' } ReplayId: 2 ctrl_cpu_events: ['p', 'q'] ts_cpu_events: 'r' "
         "ai_cpu_events: 's' ai_core_events: 't' ai_core_events_cores: 3 llc_events: 'u' "
         "ddr_events: 'v' aiv_events: 'w' aiv_events_cores: [4, 5]",
         header + "\x10\x02\x1a\x01p\x1a\x01q\x22\x01r\x2a\x01s\x32\x01t\x3a\x01\x03\x42\x01u"
                  "\x4a\x01v\x52\x01w\x5a\x02\x04\x05"},
        {"ReplayStopReq", "Hdr { job_ctx: 'c' } ReplayId: 2", header + "\x10\x02"},
        {"Response", "Hdr { job_ctx: 'c' } JobId: 'j' Status: FAILED Message: 'm'",
         header + "\x12\x01j\x18\x01\x22\x01m"},
        {"FileChunkReq",
         "Hdr { job_ctx: 'c' } FileName: 'n' Offset: -1 Chunk: '\\000\\377' ChunkSizeInBytes: 2 "
         "IsLastChunk: true NeedAck: true Tag: 't' TagSuffix: 's' ChunkStartTime: 1 "
         "ChunkEndTime: 2 DataModule: 3",
         header + "\x12\x01n\x18\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01\x22\x02\x00\xff\x28\x02"
                  "\x30\x01\x38\x01\x42\x01t\x4a\x01s\x50\x01\x58\x02\x60\x03"s},
        {"DataChannelFinish", "Hdr { job_ctx: 'c' }", header},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        const auto message = Make(c.type, c.fields);
        const std::string envelope = EncodeMessage(message);
        EXPECT_EQ(Envelope(Named(c.type) + '\0', c.body), envelope);
        const auto shared = EncodeMessageShared(message);
        ASSERT_NE(nullptr, shared);
        EXPECT_EQ(envelope, *shared);
        const auto decoded = DecodeMessage(envelope);
        ASSERT_NE(nullptr, decoded);
        EXPECT_TRUE(MessageDifferencer::Equals(*message, *decoded));
    }
    EXPECT_EQ("\0\0\0\x1E"s, EncodeMessage(Make("Response", "")).substr(0, 4));
}

TEST(Codec, EveryTypeOfTheSchemaIsFoundByName) {
    std::istringstream types(
        "Header FileChunkReq FileChunkFlushReq FileAck Response RemoteJobStartReq "
        "JobStartReq JobStopReq ReplayStartReq ReplayStopReq FinishJobRsp "
        "CtrlChannelHandshake DataChannelHandshake DeviceInfo SyncDeviceList "
        "DataChannelFinish TypeEvents ProfilerTypeEvents ProfilerEvents JobCtx "
        "ModuleConfig ProfilerJobConfig ProfilerConf ProfilerFeature ProfilerFeatureCtx "
        "ProfilerFeatureConfig TraceletPStartReq DataChannelClose InfoCpu InfoDeviceInfo "
        "NetCardInfo InfoMain AppLog CollectionStartEndTime");
    for (std::string type; types >> type;) {
        const auto message = DecodeMessage(Envelope(Named(type) + '\0', ""));
        ASSERT_NE(nullptr, message) << type;
        EXPECT_EQ(Named(type), message->GetTypeName());
        EXPECT_EQ(0u, message->ByteSizeLong()) << type;
    }
    // A map of maps, and the one message with a hole in its numbers.
    const auto config = Make("ProfilerJobConfig",
                             "modules { key: 'm' value { switches { key: 'k' value: 'v' } } }");
    EXPECT_EQ("\x12\x0d\x0a\x01m\x12\x08\x0a\x06\x0a\x01k\x12\x01v", config->SerializeAsString());
    EXPECT_EQ("\x22\x01o\xa0\x01\x07", Make("InfoMain", "OS: 'o' rank_id: 7")->SerializeAsString());
}

TEST(Codec, NameEndsAtItsFirstZero) {
    const std::string response = Named("Response");
    EXPECT_NE(nullptr, DecodeMessage(Envelope(response, "")));
    EXPECT_NE(nullptr, DecodeMessage(Envelope(response + "\0behind"s, "")));
    EXPECT_NE(nullptr, DecodeMessage(Envelope(response + std::string(1025 - 29, '\0'), "")));
    EXPECT_EQ(nullptr, CreateMessage("Response"));
}

TEST(Codec, RefusesAndSaysWhy) {
    struct Case {
        std::string buffer;
        Lines lines;
    };
    const auto unknown = [](const std::string& name) {
        return Lines{"W Failed to FindMessageTypeByName, name=" + name,
                     "W Failed to FindMessageTypeByName, name=" + name,
                     "W Failed to CreateMessage from name:" + name};
    };
    const std::string longest(1025, 'x');
    const std::string response = Named("Response") + '\0';
    const Case cases[] = {
        {"", {"E bufLen less than name len, bufLen=0, expected_len=4"}},
        {"\0\0\1"s, {"E bufLen less than name len, bufLen=3, expected_len=4"}},
        {"\0\0\0\1"s, {"E bufLen less than name, bufLen=4, expected_len=5"}},
        {"\0\0\0\x1E"s + response.substr(1),
         {"E bufLen less than name, bufLen=33, expected_len=34"}},
        {"\0\0\0\0"s, unknown("")},
        {Envelope(longest, ""), unknown(longest)},
        {Envelope(longest + 'x', "more"), {"E [DecodeMessage] buf size(1026) is too big."}},
        {"\xff\xff\xff\xff", {"E [DecodeMessage] buf size(4294967295) is too big."}},
        {Envelope(response, "\x22\x05"), {"E Failed to ParseFromArray, dataLen=2"}},
        {Envelope(response, "\x22\x01\xff"), {"E Failed to ParseFromArray, dataLen=3"}},
        {std::string(kMaxEnvelope, '\0'), unknown("")},
        {std::string(kMaxEnvelope + 1, '\0'),
         {"E [DecodeMessage] buf size(134217729) is too big."}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lines.back());
        orla::test::LogCapture log;
        EXPECT_EQ(nullptr, DecodeMessage(c.buffer));
        EXPECT_EQ(c.lines, log.Take());
    }
}

TEST(Codec, DecodesWhatIsWantedAndShort) {
    const Types wanted = {Make("Header", "")->GetDescriptor(),
                          Make("Response", "")->GetDescriptor()};
    const std::string response = Envelope(Named("Response") + "\0behind"s, "\x22\x01m");
    const struct {
        std::string buffer;
        size_t maxSize;
        const char* line;  // null: it is decoded
    } cases[] = {
        {response, response.size(), nullptr},
        {response, response.size() - 1, "W Nobody takes 43 bytes of a message of type:"},
        {Envelope(Named("InfoMain") + '\0', ""), 100, "W Nobody takes 34 bytes of a message of"},
        {Envelope(Named("Nothing") + '\0', ""), 100, "W Nobody takes 33 bytes of a message of"},
        {Envelope(Named("Respons") + '\0', ""), 100, "W Nobody takes 33 bytes of a message of"},
        {Envelope(Named("Response"), "\x22\x05"), 100, "E Failed to ParseFromArray, dataLen=2"},
        {"\0\0\1"s, 100, "E bufLen less than name len, bufLen=3, expected_len=4"},
    };
    for (const auto& c : cases) {
        orla::test::LogCapture log;
        EXPECT_EQ(c.line == nullptr, DecodeOneOf(wanted, c.maxSize, c.buffer) != nullptr);
        const Lines lines = log.Take();
        ASSERT_EQ(c.line == nullptr ? 0u : 1u, lines.size());
        EXPECT_TRUE(lines.empty() || lines[0].find(c.line) == 0) << lines[0];
    }
}

TEST(Codec, EndlessNestingFitsASmallStack) {
    const std::string response = Named("Response") + '\0';
    std::shared_ptr<Message> shallow;
    std::shared_ptr<Message> deep;
    std::shared_ptr<Message> known;
    ASSERT_TRUE(orla::test::RunOnSmallStack([&] {
        shallow =
            DecodeMessage(Envelope(response, std::string(99, '\x7b') + std::string(99, '\x7c')));
        deep = DecodeMessage(Envelope(response, std::string(100000, '\x7b')));
        std::string nested;
        for (int i = 0; i < 60; ++i) {  // a type that holds itself
            nested = "\x1a" + std::string(1, static_cast<char>(nested.size())) + nested;
        }
        known = DecodeMessage(Envelope("google.protobuf.DescriptorProto\0"s, nested));
        const auto again = EncodeMessage(shallow);
    }));
    EXPECT_NE(nullptr, shallow);
    EXPECT_EQ(nullptr, deep);
    EXPECT_NE(nullptr, known);
}

TEST(Codec, AppendsBehindWhatIsThere) {
    // Sizes around those at which bytes are taken from the message in place.
    for (const size_t size : {0u, 1000u, 1024u, 1025u, 100000u}) {
        SCOPED_TRACE(size);
        const auto message =
            Make("FileChunkReq", "Hdr { job_ctx: '" + std::string(size, 'j') + "' } Chunk: '" +
                                     std::string(size, 'c') + "' Tag: 'end'");
        const std::string envelope =
            Envelope(Named("FileChunkReq") + '\0', message->SerializeAsString());
        std::string buffer = "room for a packet";
        buffer.reserve(300000);
        const char* const block = buffer.data();
        ASSERT_TRUE(AppendEnvelope(*message, &buffer));
        EXPECT_EQ("room for a packet" + envelope, buffer);
        EXPECT_EQ(block, buffer.data());
        EXPECT_EQ(envelope, EncodeMessage(message));
    }
}

TEST(Codec, RefusesToEncodeWhatNoDecoderTakes) {
    orla::test::LogCapture log;
    EXPECT_EQ("", EncodeMessage(nullptr));
    EXPECT_EQ(nullptr, EncodeMessageShared(nullptr));
    EXPECT_EQ((Lines{"E Message is null", "E Message is null"}), log.Take());

    for (const size_t length : {1024u, 1025u}) {
        google::protobuf::FileDescriptorProto file;
        file.set_name("long.proto");
        file.add_message_type()->set_name(std::string(length, 'M'));
        google::protobuf::DescriptorPool pool;
        google::protobuf::DynamicMessageFactory factory;
        const auto* type = pool.BuildFile(file)->message_type(0);
        const std::shared_ptr<Message> message(factory.GetPrototype(type)->New());
        std::string buffer = "kept";
        EXPECT_EQ(length == 1024, AppendEnvelope(*message, &buffer));
        EXPECT_EQ(length == 1024 ? 4 + 4 + 1025u : 4u, buffer.size());
        EXPECT_EQ(length == 1024, EncodeMessageShared(message) != nullptr);
    }
    EXPECT_EQ((Lines{"E Type size:1025 is invalid", "E Type size:1025 is invalid"}), log.Take());
}

}  // namespace
}  // namespace analysis::nedra::message
