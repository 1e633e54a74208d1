#include "server/server_register.h"

#include <portability.h>

#include <exception>
#include <string>
#include <utility>

#include "hdc/log_side.h"
#include "server/velt_comm_opt_manager.h"

namespace Velt {

namespace {

constexpr uint32_t kThreadStackSize = 131072;

// Configures the manager, starts it and stays until it has ended.
bool RunServer(const ComponentServerInfo& info) {
    const HeldManager manager = ServerRegister::instance().Find(info.serverType);
    if (manager == nullptr) {
        IDE_LOGE("Find server failed, serverType:%d", info.serverType);
        return false;
    }
    auto epoll = CreateEpoll(kKindHdc);
    if (epoll == nullptr) {
        IDE_LOGE("create epoll error");
        return false;
    }
    if (!manager->RegisterEpoll(std::move(epoll))) {
        IDE_LOGE("register epoll error");
        return false;
    }
    auto option = CreateCommOpt(kKindHdc);
    if (option == nullptr) {
        IDE_LOGE("create commopt error");
        return false;
    }
    if (!manager->RegisterCommOpt(std::move(option), std::to_string(info.serverType))) {
        IDE_LOGE("register commopt error");
        return false;
    }
    if (!manager->ComponentInit()) {
        IDE_LOGE("component init error");
        return false;
    }
    manager->SetMode(info.mode);
    manager->SetDeviceId(info.deviceId);
    manager->SetName("velt_get_file_thread");
    if (manager->Start() != 0) {
        return false;
    }
    manager->Join();
    return true;
}

void* ServerThread(void* argument) {
    try {
        if (RunServer(*static_cast<const ComponentServerInfo*>(argument))) {
            return nullptr;
        }
    } catch (const std::exception& e) {
        IDE_LOGE("the start of a server ends: %s", e.what());
    }
    IDE_LOGE("server process failed");
    return nullptr;
}

}  // namespace

bool ServerRegister::Register(int32_t serverType, std::unique_ptr<VeltComponent> component) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return managers_[serverType].AddComponent(std::move(component));
}

HeldManager ServerRegister::Find(int32_t serverType) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto manager = managers_.find(serverType);
    if (manager == managers_.end()) {
        return nullptr;
    }
    manager->second.Hold();
    return HeldManager(&manager->second);
}

void ServerRegister::Cleanup(int32_t serverType) {
    const std::lock_guard<std::mutex> lock(mutex_);
    managers_.erase(serverType);
}

int ComponentServerRegister(int32_t serverType, std::unique_ptr<VeltComponent> component) {
    IDE_LOGI("Start to register, serverType:%d, componentType:%d", serverType,
             component == nullptr ? kComponentNone : component->GetType());
    try {
        return ServerRegister::instance().Register(serverType, std::move(component)) ? 0 : -1;
    } catch (const std::exception& e) {
        IDE_LOGE("the registration of a component ends: %s", e.what());
        return -1;
    }
}

int ComponentServerStartup(const ComponentServerInfo& serverInfo) {
    IDE_LOGI("Start to startup, serverType:%d", serverInfo.serverType);
    static ComponentServerInfo info = serverInfo;
    const mmUserBlock_t routine{ServerThread, &info};
    mmThreadAttr attributes{};
    attributes.detachFlag = 1;
    attributes.stackFlag = 1;
    attributes.stackSize = kThreadStackSize;
    mmThread handle = 0;
    return mmCreateTaskWithThreadAttr(&handle, &routine, &attributes) == EN_OK ? 0 : -1;
}

void ComponentServerCleanup(int32_t serverType) {
    IDE_LOGI("Start to cleanup, serverType:%d", serverType);
    ServerRegister::instance().Cleanup(serverType);
}

}  // namespace Velt
