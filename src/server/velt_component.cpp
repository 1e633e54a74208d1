#include "server/velt_component.h"

namespace Velt {

namespace {

struct ComponentRow {
    int32_t componentType;
    uint16_t requestType;
    const char* name;
    const char* displayName;
};

constexpr ComponentRow kComponents[] = {
    {kComponentFile, kRequestTypeFile, "file_getd", "TransferFile"},
    {kComponentLog, kRequestTypeLog, "log", "OpreateLog"},
    {kComponentDump, kRequestTypeDump, "dump", "DataDump"},
};

}  // namespace

int32_t ComponentTypeOf(uint16_t requestType) {
    for (const ComponentRow& row : kComponents) {
        if (row.requestType == requestType) {
            return row.componentType;
        }
    }
    return kComponentNone;
}

}  // namespace Velt
