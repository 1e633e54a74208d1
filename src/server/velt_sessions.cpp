#include "server/velt_sessions.h"

#include <portability.h>

#include <exception>
#include <new>
#include <utility>

#include "hdc/log_side.h"
#include "server/velt_comm_opt_manager.h"

namespace Velt {

bool VeltSessions::AddComponent(std::unique_ptr<VeltComponent> component) {
    if (component == nullptr) {
        IDE_LOGE("add component input error");
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    const int32_t type = component->GetType();
    if (components_.count(type) != 0) {
        return false;
    }
    IDE_LOGI("server manager add component (%d)", type);
    components_.emplace(type, std::move(component));
    lastComponentType_ = type;
    return true;
}

void VeltSessions::InitComponents() {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : components_) {
        static_cast<void>(entry.second->Init());
    }
}

VeltComponent* VeltSessions::FindComponent(int32_t type) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto component = components_.find(type);
    return component == components_.end() ? nullptr : component->second.get();
}

// ---- The manager's thread --------------------------------------------------------------------

bool VeltSessions::Take(const CommHandle& session) {
    if (StartThread(session)) {
        return true;
    }
    IDE_LOGE("creare commponent process thread failed, strerror is %s",
             orla::SystemErrorText().c_str());
    CommHandle refused = session;
    VeltCommOptManager::instance().Close(refused);
    return false;
}

bool VeltSessions::StartThread(const CommHandle& session) {
    std::unique_ptr<Served> served(new (std::nothrow) Served{shared_from_this(), session});
    if (served == nullptr || !Enter(session)) {
        return false;
    }
    const mmUserBlock_t routine{SessionThread, served.get()};
    mmThread handle = 0;
    if (mmCreateTaskWithDetach(&handle, &routine) != EN_OK) {
        const std::lock_guard<std::mutex> lock(mutex_);
        open_.erase(session.value);
        --threads_;
        return false;
    }
    static_cast<void>(served.release());
    return true;
}

bool VeltSessions::Enter(const CommHandle& session) {
    try {
        const std::lock_guard<std::mutex> lock(mutex_);
        open_.insert(session.value);
        ++threads_;
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// ---- A session's thread ----------------------------------------------------------------------

void* VeltSessions::SessionThread(void* argument) {
    if (argument == nullptr) {
        return nullptr;
    }
    const std::unique_ptr<Served> served(static_cast<Served*>(argument));
    mmSetCurrentThreadName("velt_commponent_process");
    IDE_LOGI("process new connect");
    try {
        served->sessions->ServeRequest(served->session);
    } catch (const std::exception& e) {
        IDE_LOGE("a request ends with an exception: %s", e.what());
    }
    served->sessions->Finish(served->session);
    served->sessions->LeaveThread();
    return nullptr;
}

void VeltSessions::ServeRequest(const CommHandle& session) {
    MsgPtr message;
    int32_t length = 0;
    const int ret = ReadMsg(session, 1, message, length);
    if (message == nullptr) {
        IDE_LOGE("reveice request failed ret %d, length(%d)", ret, length);
        return;
    }
    if (!CheckWholeMsg(message.get(), length)) {
        return;
    }
    const uint32_t requestType = message->type;
    IDE_LOGI("commopt type(%d), request type(%u)", session.type, requestType);
    const int32_t componentType = ComponentTypeOf(message->type);
    VeltComponent* component = FindComponent(componentType);
    if (component == nullptr) {
        IDE_LOGE("Unable to find the corresponding component type(%d)", componentType);
        return;
    }
    const std::string name = component->GetName();
    IDE_LOGI("begin to process [%s] component", name.c_str());
    if (component->Process(session, message) != 0) {
        IDE_LOGE("end of processing [%s] component failed, req->type: %u", name.c_str(),
                 requestType);
    } else {
        IDE_LOGI("end of processing [%s] component succcessfully", name.c_str());
    }
}

// A server with the log component leaves its sessions to the components.
void VeltSessions::Finish(CommHandle session) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (open_.erase(session.value) == 0 || lastComponentType_ == kComponentLog) {
            return;
        }
    }
    VeltCommOptManager::instance().Close(session);
}

void VeltSessions::LeaveThread() {
    bool uninit = false;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        --threads_;
        uninit = abandoned_ && threads_ == 0;
        threadsChanged_.notify_all();
    }
    if (uninit) {
        UnInitComponents();
    }
}

// ---- The end ---------------------------------------------------------------------------------

void VeltSessions::CloseAll() {
    std::set<int64_t> sessions;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        sessions.swap(open_);
    }
    for (const int64_t value : sessions) {
        CommHandle session{commOptType_, value};
        VeltCommOptManager::instance().Close(session);
    }
}

void VeltSessions::End() {
    CloseAll();
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!threadsChanged_.wait_for(lock, patience_, [this] { return threads_ == 0; })) {
            IDE_LOGW("%u session threads are still in their components", threads_);
            abandoned_ = true;
            return;
        }
    }
    UnInitComponents();
}

void VeltSessions::UnInitComponents() {
    std::map<int32_t, std::unique_ptr<VeltComponent>> components;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        components.swap(components_);
    }
    for (const auto& entry : components) {
        static_cast<void>(entry.second->UnInit());
    }
}

}  // namespace Velt
