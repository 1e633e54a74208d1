#include "profiling/datapath/queue_budget.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>

namespace analysis::nedra::transport {

namespace {

constexpr size_t kSmallestLimit = size_t{64} << 20;
constexpr size_t kPartOfMemory = 4;
constexpr char kOwnGroups[] = "/proc/self/cgroup";

// Where the two versions of control groups keep their memory limits.
struct Hierarchy {
    const char* root;
    const char* limitFile;
};
constexpr Hierarchy kHierarchies[] = {
    {"/sys/fs/cgroup", "memory.max"},
    {"/sys/fs/cgroup/memory", "memory.limit_in_bytes"},
};

std::string TextOf(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

uint64_t MachineMemory() {
    const long pages = sysconf(_SC_PHYS_PAGES);
    const long pageSize = sysconf(_SC_PAGESIZE);
    return pages > 0 && pageSize > 0
               ? static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize)
               : 0;
}

// The smallest limit of the group and of all above it; each of them holds for the process.
uint64_t SmallestLimit(const Hierarchy& hierarchy, std::string group, uint64_t smallest) {
    while (true) {
        const uint64_t limit =
            MemoryLimitOf(TextOf(hierarchy.root + group + "/" + hierarchy.limitFile));
        smallest = limit != 0 ? std::min(smallest, limit) : smallest;
        if (group.empty()) {
            return smallest;
        }
        group.resize(group.rfind('/'));
    }
}

}  // namespace

std::string MemoryGroupPath(std::string_view cgroupText) {
    // A line is "number:controllers:path"; version 2 has the number 0 and no controllers.
    std::string found;
    while (!cgroupText.empty()) {
        const std::string_view line = cgroupText.substr(0, cgroupText.find('\n'));
        cgroupText.remove_prefix(std::min(cgroupText.size(), line.size() + 1));
        const size_t first = line.find(':');
        const size_t second = first == line.npos ? line.npos : line.find(':', first + 1);
        if (second == line.npos) {
            continue;
        }
        const std::string_view controllers = line.substr(first + 1, second - first - 1);
        const std::string_view path = line.substr(second + 1);
        if (path.empty() || path.front() != '/' ||
            (controllers != "memory" && !(controllers.empty() && found.empty()))) {
            continue;
        }
        found = path == "/" ? "" : path;
    }
    return found;
}

uint64_t MemoryLimitOf(std::string_view limitText) {
    uint64_t limit = 0;
    const auto [end, error] =
        std::from_chars(limitText.data(), limitText.data() + limitText.size(), limit);
    return error == std::errc() ? limit : 0;
}

size_t QueueBudget::LimitOfProcess() {
    const std::string group = MemoryGroupPath(TextOf(kOwnGroups));
    uint64_t memory = MachineMemory();
    for (const Hierarchy& hierarchy : kHierarchies) {
        memory = SmallestLimit(hierarchy, group, memory);
    }
    return std::max(kSmallestLimit, static_cast<size_t>(memory / kPartOfMemory));
}

size_t QueueBudget::used() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return used_;
}

bool QueueBudget::Share::TryTake(size_t bytes) {
    const std::lock_guard<std::mutex> lock(budget_->mutex_);
    const size_t others = budget_->used_ - held_;
    const size_t left = budget_->limit_ - std::min(others, budget_->limit_);
    if (held_ != 0 && held_ + bytes > left / 2) {
        return false;
    }
    held_ += bytes;
    budget_->used_ += bytes;
    return true;
}

void QueueBudget::Share::Give(size_t bytes) {
    const std::lock_guard<std::mutex> lock(budget_->mutex_);
    held_ -= bytes;
    budget_->used_ -= bytes;
}

}  // namespace analysis::nedra::transport
