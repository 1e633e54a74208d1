#include "file_service/velt_get_file.h"

#include <hdc_driver.h>

#include <cstring>

#include "file_service/device_files.h"
#include "hdc/hdc_api.h"
#include "hdc/log_side.h"
#include "server/hdc_handles.h"
#include "server/velt_msg_file.h"
#include "server/velt_msg_proto.h"

namespace {

using Velt::CommHandle;

// Run environments that may have the files: the physical machine and a virtual one. A container
// shares the device with others.
constexpr int kEnvPhysical = 1;
constexpr int kEnvVirtual = 3;

constexpr char kRefusal[] = "MESSAGE_CONTAINER_NO_SUPPORT";
constexpr char kEnd[] = "game_over";

// Texts travel with their terminating zero.
template <size_t Size>
int SendText(const CommHandle& session, Velt::MsgStatus status, const char (&text)[Size]) {
    return Velt::SendMsg(session, Velt::kRequestTypeFile, status, text, Size);
}

bool SendName(const CommHandle& session, const std::string& name) {
    if (Velt::SendMsg(session, Velt::kRequestTypeFile, Velt::kMsgStatusGoOn, name.c_str(),
                      static_cast<uint32_t>(name.size() + 1)) == Velt::kMsgOk) {
        return true;
    }
    IDE_LOGE("send file path failed, file path name is %s", name.c_str());
    return false;
}

bool SendContent(const CommHandle& session, const DeviceFile& file) {
    const bool inPlace = file.type().source == DeviceFileType::Source::kInPlace;
    const auto send = inPlace ? Velt::SendEventFile : Velt::SendFile;
    if (send(session, Velt::kRequestTypeFile, 0, file.fd()) == Velt::kMsgOk) {
        return true;
    }
    IDE_LOGE("read or send file failed, start to send ctrl msg to notice host");
    static_cast<void>(
        Velt::SendResponse(session, Velt::kRequestTypeFile, 0, Velt::kMsgStatusFileFailed));
    return false;
}

void Transfer(const CommHandle& session, const DeviceFile& file) {
    if (SendName(session, file.relativeName()) && SendContent(session, file)) {
        return;
    }
    IDE_LOGE(" Send file name or file content failed, path is %s", file.path().c_str());
    IDE_LOGW("Transfer file failed, %s", file.path().c_str());
}

int SendFiles(const CommHandle& session, const DeviceFileType& type, int peerPid) {
    DeviceFileWalk walk(type, peerPid);
    if (walk.Find() != 0) {
        return -1;
    }
    while (const auto file = walk.Next()) {
        Transfer(session, *file);
    }
    if (SendText(session, Velt::kMsgStatusGoOn, kEnd) != Velt::kMsgOk) {
        IDE_LOGE("send end msg failed");
        return -1;
    }
    return 0;
}

}  // namespace

int VeltGetFile::Process(const CommHandle& session,
                         const std::shared_ptr<Velt::MsgProto>& message) {
    if (message->msgType != Velt::kMsgData) {
        IDE_LOGE("reveice non data message");
        return 0;
    }
    const HdcSessionPtr handle = Velt::HdcSessions().Find(session.value);
    int runEnv = 0;
    int ret = HdcGetSessionRunEnv(handle, &runEnv);
    if (ret != 0) {
        IDE_LOGE("Get run env failed, %d.", ret);
        return -1;
    }
    if (runEnv != kEnvPhysical && runEnv != kEnvVirtual) {
        IDE_LOGW("Prohibit container get device file, runEnv=%d.", runEnv);
        static_cast<void>(SendText(session, Velt::kMsgStatusRefused, kRefusal));
        return 0;
    }
    const std::string name(message->data, strnlen(message->data, message->sliceLen));
    int pid = 0;
    ret = HdcGetSessionPid(handle, &pid);
    if (ret != 0) {
        IDE_LOGE("get pid failed, %d", ret);
        return -1;
    }
    const DeviceFileType* type = FindDeviceFileType(name);
    return type == nullptr ? -1 : SendFiles(session, *type, pid);
}
