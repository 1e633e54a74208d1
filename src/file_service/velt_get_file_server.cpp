#include "file_service/velt_get_file_server.h"

#include <memory>
#include <new>

#include "file_service/velt_get_file.h"
#include "hdc/hdc_api.h"
#include "hdc/log_side.h"
#include "server/server_register.h"

namespace {

constexpr int32_t kAllDevices = 0;
constexpr int32_t kNoSingleDevice = -1;

}  // namespace

int32_t VeltGetFileServerStart() {
    std::unique_ptr<Velt::VeltComponent> component(new (std::nothrow) VeltGetFile);
    if (component == nullptr) {
        IDE_LOGE("init component error");
        return -1;
    }
    int ret = Velt::ComponentServerRegister(kHdcServiceFramework, std::move(component));
    if (ret != 0) {
        IDE_LOGE("register component func error");
        return ret;
    }
    ret = Velt::ComponentServerStartup({kHdcServiceFramework, kAllDevices, kNoSingleDevice});
    if (ret != 0) {
        IDE_LOGE("startup component server error");
    }
    return ret;
}

void VeltGetFileServerStop() {
    Velt::ComponentServerCleanup(kHdcServiceFramework);
}
