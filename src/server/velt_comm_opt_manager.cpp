#include "server/velt_comm_opt_manager.h"

#include <new>
#include <utility>

#include "hdc/log_side.h"
#include "server/hdc_comm_opt.h"
#include "server/velt_hdc_epoll.h"

namespace Velt {

VeltCommOpt* VeltCommOptManager::Find(int32_t type) const {
    const auto option = options_.find(type);
    return option == options_.end() ? nullptr : option->second.get();
}

bool VeltCommOptManager::CommOptsRegister(std::shared_ptr<VeltCommOpt> option) {
    if (option == nullptr) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const int32_t type = option->CommOptType();
    // A look first: traffic of other types may be reading the map.
    if (Find(type) != nullptr) {
        IDE_LOGW("have been commopt registered");
        return true;
    }
    options_.emplace(type, std::move(option));
    return true;
}

CommHandle VeltCommOptManager::OpenServer(int32_t type, const CommOptions& options) {
    VeltCommOpt* option = Find(type);
    if (option == nullptr) {
        IDE_LOGW("commopt(%d) not registered", type);
        return {type, kNoHandle};
    }
    return {type, option->OpenServer(options)};
}

CommHandle VeltCommOptManager::OpenClient(int32_t type, const CommOptions& options) {
    VeltCommOpt* option = Find(type);
    return {type, option == nullptr ? kNoHandle : option->OpenClient(options)};
}

CommHandle VeltCommOptManager::Accept(const CommHandle& server) {
    VeltCommOpt* option = Find(server.type);
    return {server.type, option == nullptr ? kNoHandle : option->Accept(server.value)};
}

CommHandle VeltCommOptManager::Connect(const CommHandle& client, const CommOptions& options) {
    VeltCommOpt* option = Find(client.type);
    return {client.type, option == nullptr ? kNoHandle : option->Connect(client.value, options)};
}

int VeltCommOptManager::CloseServer(CommHandle& server) {
    VeltCommOpt* option = Find(server.type);
    return option == nullptr ? 0 : option->CloseServer(server.value);
}

int VeltCommOptManager::CloseClient(CommHandle& client) {
    VeltCommOpt* option = Find(client.type);
    return option == nullptr ? 0 : option->CloseClient(client.value);
}

void VeltCommOptManager::Close(CommHandle& session) {
    VeltCommOpt* option = Find(session.type);
    if (option != nullptr) {
        option->Close(session.value);
    }
}

int VeltCommOptManager::Write(const CommHandle& session, const void* buffer, int32_t length,
                              int flag) {
    VeltCommOpt* option = Find(session.type);
    return option == nullptr ? -1 : option->Write(session.value, buffer, length, flag);
}

int VeltCommOptManager::Read(const CommHandle& session, void** buffer, int32_t* length, int flag) {
    VeltCommOpt* option = Find(session.type);
    return option == nullptr ? -1 : option->Read(session.value, buffer, length, flag);
}

std::shared_ptr<VeltDevice> VeltCommOptManager::GetDevice(int32_t type) {
    VeltCommOpt* option = Find(type);
    return option == nullptr ? nullptr : option->GetDevice();
}

void VeltCommOptManager::Timer(int32_t type) {
    VeltCommOpt* option = Find(type);
    if (option != nullptr) {
        option->Timer();
    }
}

std::unique_ptr<VeltEpoll> CreateEpoll(int32_t kind) {
    return std::unique_ptr<VeltEpoll>(kind == kKindHdc ? new (std::nothrow) VeltHdcEpoll : nullptr);
}

std::unique_ptr<VeltCommOpt> CreateCommOpt(int32_t kind) {
    return std::unique_ptr<VeltCommOpt>(kind == kKindHdc ? new (std::nothrow) HdcCommOpt : nullptr);
}

}  // namespace Velt
