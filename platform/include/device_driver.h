/*
 * What the driver tells about its devices: how many there are, on which side of the bus this
 * process runs, which chip it is, what its processors are and how its clocks run. Plain C,
 * from the closed driver library on a card and from platform/emulation on a development
 * machine. The device numbers that the host-device channel needs as well (drvGetDevNum,
 * drvGetDeviceLocalIDs, drvDeviceGetPhyIdByIndex) stand in hdc_driver.h.
 *
 * Every operation returns 0 (DRV_ERROR_NONE) or a positive code; DRV_ERROR_NOT_SUPPORT means
 * that this driver is older than the question or that its device has no such thing, which is
 * a state and no fault; any other is a failure. On every code but 0 out-parameters are
 * unchanged. Nothing blocks, nothing keeps a pointer; any thread may ask at any time.
 */
#ifndef ORLA_PLATFORM_DEVICE_DRIVER_H
#define ORLA_PLATFORM_DEVICE_DRIVER_H

#include <hdc_driver.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Answers of drvGetPlatformInfo. */
enum {
    DRV_PLATFORM_DEVICE = 0,      /* this process runs on the card's control CPU */
    DRV_PLATFORM_HOST = 1,        /* it runs on the host */
    DRV_PLATFORM_UNKNOWN = 10000, /* the driver doesn't know yet */
};

/* Parts of a device that halGetDeviceInfo can be asked about. */
enum {
    DEV_MODULE_SYSTEM = 0,
    DEV_MODULE_AI_CPU = 1,
    DEV_MODULE_CTRL_CPU = 2,
    DEV_MODULE_AI_CORE = 4,
    DEV_MODULE_TS_CPU = 5, /* the task scheduler's CPU */
    DEV_MODULE_VECTOR_CORE = 7,
};

/* What it can be asked. Not every module knows every answer. */
enum {
    DEV_INFO_ENVIRONMENT = 0,    /* system: kind of environment */
    DEV_INFO_TYPE_VERSION = 1,   /* system: bits 8..15 chip generation, bits 0..7 its version */
    DEV_INFO_CORE_NUM = 3,       /* number of cores */
    DEV_INFO_OCCUPY_BITMAP = 8,  /* one bit for each core in use, bit 0 the first */
    DEV_INFO_CORE_ID = 9,        /* id of the module's (first) core */
    DEV_INFO_ENDIAN_LITTLE = 11, /* 1: little-endian, 0: big-endian */
    DEV_INFO_COUNTER = 13,       /* system: the device's free-running counter, now */
    DEV_INFO_START_MONO = 14,    /* system: monotonic start time, in ns */
    DEV_INFO_HOST_FREQ = 24,     /* system: frequency of the host's counter, in kHz */
    DEV_INFO_DEVICE_FREQ = 25,   /* system: frequency of the device's counter, in kHz */
};

/* Side that this process runs on. */
drvError_t drvGetPlatformInfo(uint32_t* info);
/* Logical ids of the devices, at most `count` (1..64) of them; `ids` has room for 64. Entries
 * beyond the number of devices are unchanged. */
drvError_t drvGetDevIDs(uint32_t* ids, uint32_t count);
/* One number about one module of a device. `device` is its logical id, 0..63; a device that
 * isn't there is a failure of its own, not DRV_ERROR_NOT_SUPPORT. */
drvError_t halGetDeviceInfo(uint32_t device, int32_t module, int32_t info, int64_t* value);
/* Version of the driver's interface; a newer one is a greater number. */
drvError_t halGetAPIVersion(int* version);

#ifdef __cplusplus
}
#endif
#endif
