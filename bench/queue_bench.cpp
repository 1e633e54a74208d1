// What the bounded queue costs per element against the least that can do its work, a deque under
// a mutex with two conditions, in the same run; and what asking the tuning file about a channel
// costs, which happens for every event of the driver.
//
// "Pair" is one push and one pop on one thread: the cost without anybody else. "Stream" is one
// element from any of the producers to the one consumer, which is how an uploader works; the
// producers push as fast as they can, so the queue is full most of the time and both sides pay
// for waking each other. Log lines are off: a full queue writes warnings, and those would be
// what is measured.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "emulation/control.h"
#include "figure.h"
#include "profiling/config/json_parser.h"
#include "profiling/datapath/bound_queue.h"

namespace {

using Element = std::shared_ptr<std::string>;
using analysis::nedra::common::queue::BoundQueue;
using orla::bench::Repeated;

constexpr uint64_t kCapacity = 512;  // of an uploader

class BareQueue {
public:
    explicit BareQueue(uint64_t capacity) : capacity_(capacity) {}

    bool Push(Element element) {
        std::unique_lock<std::mutex> lock(mutex_);
        notFull_.wait(lock, [this] { return queue_.size() < capacity_ || quit_; });
        if (quit_) {
            return false;
        }
        queue_.push_back(std::move(element));
        notEmpty_.notify_one();
        return true;
    }

    void Pop(Element& out) {
        std::unique_lock<std::mutex> lock(mutex_);
        notEmpty_.wait(lock, [this] { return !queue_.empty() || quit_; });
        if (!queue_.empty()) {
            out = std::move(queue_.front());
            queue_.pop_front();
            notFull_.notify_one();
        }
    }

    void Quit() {
        const std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
        notEmpty_.notify_all();
        notFull_.notify_all();
    }

private:
    const uint64_t capacity_;
    std::mutex mutex_;
    std::condition_variable notEmpty_;
    std::condition_variable notFull_;
    std::deque<Element> queue_;
    bool quit_ = false;
};

template <typename Queue>
void BM_Pair(benchmark::State& state) {
    Queue queue(kCapacity);
    Element element = std::make_shared<std::string>("message");
    for (auto _ : state) {
        if (!queue.Push(std::move(element))) {
            return state.SkipWithError("refused");
        }
        queue.Pop(element);
    }
    state.SetItemsProcessed(state.iterations());
}

template <typename Queue>
void BM_Stream(benchmark::State& state) {
    Queue queue(kCapacity);
    std::vector<std::thread> producers;
    for (int64_t i = 0; i < state.range(0); ++i) {
        producers.emplace_back([&queue] {
            const Element element = std::make_shared<std::string>("message");
            while (queue.Push(element)) {
            }
        });
    }
    for (auto _ : state) {
        Element element;
        queue.Pop(element);
        benchmark::DoNotOptimize(element.get());
    }
    queue.Quit();
    for (std::thread& producer : producers) {
        producer.join();
    }
    state.SetItemsProcessed(state.iterations());
}

void Streams(benchmark::internal::Benchmark* benchmark) {
    Repeated(benchmark);
    benchmark->Arg(1)->Arg(4)->MeasureProcessCPUTime()->UseRealTime();
}

BENCHMARK_TEMPLATE(BM_Pair, BareQueue)->Apply(Repeated);
BENCHMARK_TEMPLATE(BM_Pair, BoundQueue<Element>)->Apply(Repeated);
BENCHMARK_TEMPLATE(BM_Stream, BareQueue)->Apply(Streams);
BENCHMARK_TEMPLATE(BM_Stream, BoundQueue<Element>)->Apply(Streams);

// With no file at all, and with one that names as many channels as the data path has.
void BM_ReporterSwitch(benchmark::State& state) {
    std::string entries;
    for (const char* name : {"HBM", "PCIE", "NIC", "DVPP", "DDR", "LLC", "TS_CPU", "AI_CORE",
                             "TS_FW", "HWTS_LOG", "FMK", "L2_CACHE_TASK", "ROCE"}) {
        entries += std::string(entries.empty() ? "" : ",") + R"({"channel":")" + name + "\"}";
    }
    Tracelets::Parser::JsonParser parser;
    parser.Load(state.range(0) == 0 ? "{}" : R"({"device":{"channels":[)" + entries + "]}}", "");
    uint32_t channel = 0;
    for (auto _ : state) {
        channel = (channel + 7) % 140;
        bool isOn = parser.GetChannelReporterSwitch(channel);
        benchmark::DoNotOptimize(isOn);
    }
}
BENCHMARK(BM_ReporterSwitch)->Arg(0)->Arg(1)->Apply(Repeated);

}  // namespace

int main() {
    orla::control::SetLogLevel(orla::control::LogLevel::kError);
    const orla::bench::Medians ns;
    const auto figure = [&](const std::string& what, const std::string& name,
                            const std::string& producers) {
        orla::bench::Figure(what, "ns", ns[name + "<BoundQueue<Element>>" + producers],
                            ns[name + "<BareQueue>" + producers], "deque, mutex, two conditions");
    };
    figure("queue, push and pop on one thread", "BM_Pair", "");
    figure("queue, an element of 1 producer", "BM_Stream", "/1");
    figure("queue, an element of 4 producers", "BM_Stream", "/4");
    return 0;
}
