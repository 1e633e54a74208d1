/*
 * The driver's profiling channels, and the records that start them. Plain C, from the closed
 * driver library on a card and from platform/emulation on a development machine.
 *
 * A channel is one numbered stream of profiling data inside the driver. It is started with a
 * record that says what to collect, tells through prof_channel_poll that it has data, hands
 * the bytes out through prof_channel_read, and is stopped. The driver keeps what is not read
 * yet in a buffer of its own, whose size is the driver's.
 *
 * Every operation returns 0 or a positive value on success and a negative one on failure;
 * PROF_STOPPED_ALREADY is told apart by callers, any other is a failure without a special
 * meaning. Any thread may call any operation at any time: a channel may be read while another
 * one, or the same one, starts or stops.
 *
 * All records are little-endian words as they stand here, and zero where nothing is said.
 */
#ifndef ORLA_PLATFORM_PROF_DRIVER_H
#define ORLA_PLATFORM_PROF_DRIVER_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PROF_OK = 0,
    PROF_ERROR = -1,
    PROF_STOPPED_ALREADY = -4, /* the channel has stopped; of a poll: polling has stopped */
};

enum {
    PROF_CHANNEL_NUM_MAX = 160, /* ids are 1..160, and so many fit a list */
    PROF_CHANNEL_NAME_LEN = 32,
    PROF_EVENT_NUM_MAX = 8, /* of one core's counters */
};

/* ---- The channels of a device ------------------------------------------------------- */

typedef struct {
    char channelName[PROF_CHANNEL_NAME_LEN]; /* padded with zeros; a name of 32 has none */
    uint32_t channelType;
    uint32_t channelId; /* 1..160 */
} ProfChannelInfo;
static_assert(sizeof(ProfChannelInfo) == 40, "layout of the driver");
static_assert(offsetof(ProfChannelInfo, channelType) == 32, "layout of the driver");
static_assert(offsetof(ProfChannelInfo, channelId) == 36, "layout of the driver");

typedef struct {
    uint32_t chipType;
    uint32_t channelNum; /* 1..160 */
    ProfChannelInfo channels[PROF_CHANNEL_NUM_MAX];
} ProfChannelList;
static_assert(sizeof(ProfChannelList) == 6408, "layout of the driver");
static_assert(offsetof(ProfChannelList, channelNum) == 4, "layout of the driver");
static_assert(offsetof(ProfChannelList, channels) == 8, "layout of the driver");

/* Fills the record with the channels of a device, by its logical id. Entries beyond
 * `channelNum` are unchanged; on a failure the whole record is undefined. */
int prof_drv_get_channels(uint32_t device, ProfChannelList* channels);

/* ---- Start and stop ------------------------------------------------------------------ */

enum {
    PROF_START_TS = 0,         /* channelType of a start: the channel belongs to the cores */
    PROF_START_PERIPHERAL = 1, /* it belongs to a block around them */
};

typedef struct {
    uint32_t channelType;  /* PROF_START_* */
    uint32_t samplePeriod; /* in the driver's unit for that channel; 0 where it samples nothing */
    uint32_t realTime;     /* 1: data is read while it is collected */
    uint32_t padding0;
    void* userData;        /* configuration record of the channel; null with a size of 0 */
    uint32_t userDataSize; /* its size in bytes */
    uint32_t padding1;
} ProfStartPara;
static_assert(sizeof(ProfStartPara) == 32, "layout of the driver");
static_assert(offsetof(ProfStartPara, samplePeriod) == 4, "layout of the driver");
static_assert(offsetof(ProfStartPara, realTime) == 8, "layout of the driver");
static_assert(offsetof(ProfStartPara, userData) == 16, "layout of the driver");
static_assert(offsetof(ProfStartPara, userDataSize) == 24, "layout of the driver");

/* Starts a channel. Both records stay the caller's and are read during the call only. The
 * configuration has exactly the size of the channel's record below; a channel that has none there
 * is started without. */
int prof_drv_start(uint32_t device, uint32_t channel, const ProfStartPara* para);
/* Stops it. What was collected until then may be gone at once, or can be read until nothing is
 * left: whoever wants it tries. Polls that wait return soon. PROF_STOPPED_ALREADY: it was not
 * started. */
int prof_stop(uint32_t device, uint32_t channel);

/* ---- Data ------------------------------------------------------------------------------ */

typedef struct {
    uint32_t device;
    uint32_t channel;
} ProfPollInfo;
static_assert(sizeof(ProfPollInfo) == 8, "layout of the driver");
static_assert(offsetof(ProfPollInfo, channel) == 4, "layout of the driver");

/* Copies what is there, at most `size` bytes, and returns how many; 0 when nothing is there.
 * Does not block. PROF_STOPPED_ALREADY: the channel has stopped and is empty, or was never
 * started. On a failure the content of the buffer is undefined. */
int prof_channel_read(uint32_t device, uint32_t channel, char* buffer, uint32_t size);

/* Waits until started channels, of any device, have data, and fills a record for each, at most
 * `num`. Returns how many, 0 when `timeout` ran out or a channel stopped meanwhile, -1 on an
 * error, PROF_STOPPED_ALREADY when the driver polls no longer. `timeout` counts in a unit of the
 * driver's, some tens of milliseconds; 0 does not wait. While no channel is started a driver may
 * wait just as well, or answer 0 or PROF_STOPPED_ALREADY at once. */
int prof_channel_poll(ProfPollInfo* events, int num, int timeout);

/* Moves the side buffer that the driver keeps for some channels into the channel, where it is
 * read as ever, and tells its size in bytes. PROF_STOPPED_ALREADY: the channel is closed. Not
 * every driver has it: the symbol is then null. On a failure `size` is unchanged. */
int halProfDataFlush(uint32_t device, uint32_t channel, uint32_t* size) __attribute__((weak));

/* ---- Configuration records: the cores ---------------------------------------------------
 *
 * `tag` is 1 when the processes to be profiled come and go (dynamic profiling), else 0. A core
 * mask has bit n set for the core with id n. */

enum {
    PROF_AICORE_TASK = 0,             /* counted per task */
    PROF_AICORE_SAMPLE = 1,           /* sampled with a period */
    PROF_AICORE_SAMPLE_MARK = 0x6666, /* ProfAicoreConfig.mark when sampling */
};

/* AI_CORE and AI_VECTOR. Counting per task leaves mark, period and coreMask 0. */
typedef struct {
    uint32_t type; /* PROF_AICORE_* */
    uint32_t mark;
    uint32_t period;
    uint32_t coreMask;
    uint32_t eventNum; /* at most 8 */
    uint32_t events[PROF_EVENT_NUM_MAX];
    uint32_t tag;
} ProfAicoreConfig;
static_assert(sizeof(ProfAicoreConfig) == 56, "layout of the driver");
static_assert(offsetof(ProfAicoreConfig, coreMask) == 12, "layout of the driver");
static_assert(offsetof(ProfAicoreConfig, eventNum) == 16, "layout of the driver");
static_assert(offsetof(ProfAicoreConfig, events) == 20, "layout of the driver");
static_assert(offsetof(ProfAicoreConfig, tag) == 52, "layout of the driver");

/* L2_CACHE_TASK: (eventNum + 1) words. */
typedef struct {
    uint32_t eventNum;
    uint32_t events[];
} ProfL2CacheConfig;
static_assert(sizeof(ProfL2CacheConfig) == 4, "layout of the driver");

/* TS_CPU: (eventNum + 2) words. */
typedef struct {
    uint32_t period;
    uint32_t eventNum;
    uint32_t events[];
} ProfTsCpuConfig;
static_assert(sizeof(ProfTsCpuConfig) == 8, "layout of the driver");

/* Bits of ProfTsFwConfig.memCpy. */
#define PROF_TSFW_TASK 0x81000001U
#define PROF_TSFW_MEMCPY_0 0x82000001U
#define PROF_TSFW_MEMCPY_1 0x84000001U

/* TS_FW and TS_FW1. Each word but period and memCpy is a switch, 0 or 1. */
typedef struct {
    uint32_t period;
    uint32_t taskTrack;
    uint32_t cpuUsage;
    uint32_t aiCoreStatus;
    uint32_t timeLine;
    uint32_t aiVecStatus;
    uint32_t keyPoint;
    uint32_t memCpy; /* any of PROF_TSFW_*, ORed */
} ProfTsFwConfig;
static_assert(sizeof(ProfTsFwConfig) == 32, "layout of the driver");
static_assert(offsetof(ProfTsFwConfig, taskTrack) == 4, "layout of the driver");
static_assert(offsetof(ProfTsFwConfig, cpuUsage) == 8, "layout of the driver");
static_assert(offsetof(ProfTsFwConfig, aiCoreStatus) == 12, "layout of the driver");
static_assert(offsetof(ProfTsFwConfig, timeLine) == 16, "layout of the driver");
static_assert(offsetof(ProfTsFwConfig, aiVecStatus) == 20, "layout of the driver");
static_assert(offsetof(ProfTsFwConfig, keyPoint) == 24, "layout of the driver");
static_assert(offsetof(ProfTsFwConfig, memCpy) == 28, "layout of the driver");

/* STARS_SOC_LOG: each word but tag is a switch, 0 or 1. */
typedef struct {
    uint32_t acsqTask;
    uint32_t accPmu;
    uint32_t cdqmReg;
    uint32_t dvppVpcBlock;
    uint32_t dvppJpegdBlock;
    uint32_t dvppJpedeBlock;
    uint32_t fftsContextTask;
    uint32_t fftsBlock;
    uint32_t sdmaDmu;
    uint32_t tag;
} ProfStarsSocLogConfig;
static_assert(sizeof(ProfStarsSocLogConfig) == 40, "layout of the driver");
static_assert(offsetof(ProfStarsSocLogConfig, fftsContextTask) == 24, "layout of the driver");
static_assert(offsetof(ProfStarsSocLogConfig, fftsBlock) == 28, "layout of the driver");
static_assert(offsetof(ProfStarsSocLogConfig, tag) == 36, "layout of the driver");

/* What the counters of one kind of core collect. */
typedef struct {
    uint32_t mode;
    uint32_t period;
    uint32_t coreMask;
    uint32_t eventNum; /* at most 8 */
    uint16_t events[PROF_EVENT_NUM_MAX];
} ProfPmuConfig;
static_assert(sizeof(ProfPmuConfig) == 32, "layout of the driver");
static_assert(offsetof(ProfPmuConfig, coreMask) == 8, "layout of the driver");
static_assert(offsetof(ProfPmuConfig, eventNum) == 12, "layout of the driver");
static_assert(offsetof(ProfPmuConfig, events) == 16, "layout of the driver");

/* FFTS_PROFILIE_TASK and FFTS_PROFILIE_SAMPLE. */
typedef struct {
    uint32_t cfgMode;
    ProfPmuConfig aiCore;
    ProfPmuConfig vectorCore;
    uint32_t tag;
} ProfFftsConfig;
static_assert(sizeof(ProfFftsConfig) == 72, "layout of the driver");
static_assert(offsetof(ProfFftsConfig, aiCore) == 4, "layout of the driver");
static_assert(offsetof(ProfFftsConfig, vectorCore) == 36, "layout of the driver");
static_assert(offsetof(ProfFftsConfig, tag) == 68, "layout of the driver");

/* One word: INSTR_PERF the period, HWTS_LOG and AIV_HWTS_LOG the tag, FMK 0. */
typedef struct {
    uint32_t value;
} ProfWordConfig;
static_assert(sizeof(ProfWordConfig) == 4, "layout of the driver");

/* ---- Configuration records: the blocks around the cores ------------------------------------- */

enum {
    PROF_MEMORY_READ = 0, /* events of ProfMemoryBusConfig */
    PROF_MEMORY_WRITE = 1,
};
#define PROF_MASTER_ANY 0xFFFFFFFFU

/* DDR and HBM: (eventNum + 3) words. */
typedef struct {
    uint32_t period;
    uint32_t masterId; /* PROF_MASTER_ANY, or the one whose traffic counts */
    uint32_t eventNum;
    uint32_t events[]; /* PROF_MEMORY_* */
} ProfMemoryBusConfig;
static_assert(sizeof(ProfMemoryBusConfig) == 12, "layout of the driver");

/* LLC. */
typedef struct {
    uint32_t period;
    uint32_t mode; /* 0; 1: reads, 2: writes */
} ProfLlcConfig;
static_assert(sizeof(ProfLlcConfig) == 8, "layout of the driver");

/* NPU_APP_MEM (target 0) and NPU_DEV_MEM (target 1). */
typedef struct {
    uint32_t period;
    uint32_t reserved0;
    uint32_t target;
    uint32_t reserved1;
} ProfMemoryUseConfig;
static_assert(sizeof(ProfMemoryUseConfig) == 16, "layout of the driver");
static_assert(offsetof(ProfMemoryUseConfig, target) == 8, "layout of the driver");

/* LP_FREQ_CONV. */
typedef struct {
    uint32_t period;
    uint32_t reserved;
} ProfFrequencyConfig;
static_assert(sizeof(ProfFrequencyConfig) == 8, "layout of the driver");

/* A switch with its period. */
typedef struct {
    uint32_t enable; /* 0 or 1 */
    uint32_t period;
} ProfSwitchedPeriod;
static_assert(sizeof(ProfSwitchedPeriod) == 8, "layout of the driver");

/* STARS_SOC_PROFILE. */
typedef struct {
    ProfSwitchedPeriod accPmu;
    ProfSwitchedPeriod onChip;
    ProfSwitchedPeriod reserved0;
    ProfSwitchedPeriod interChip;
    ProfSwitchedPeriod reserved1[2];
} ProfStarsSocProfileConfig;
static_assert(sizeof(ProfStarsSocProfileConfig) == 48, "layout of the driver");
static_assert(offsetof(ProfStarsSocProfileConfig, onChip) == 8, "layout of the driver");
static_assert(offsetof(ProfStarsSocProfileConfig, interChip) == 24, "layout of the driver");

#ifdef __cplusplus
}
#endif
#endif
