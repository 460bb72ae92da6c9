#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace opcdir {

// Entries loaded one at a time and computed on worker threads, ahead of the
// one consumer that takes them in order. The loader is never called by two
// threads at once, so it may use what admits one thread only (a package, a
// libzip archive), and it is called in entry order, so that the n-th call
// always meets the same entry. What is loaded and not yet taken stays within
// `bytes`, entry i counting as costs[i], except that one entry costing more
// than that is still loaded alone.
template <typename Loaded, typename Result>
class OrderedPipeline {
public:
    OrderedPipeline(std::vector<std::uint64_t> costs,
                    std::function<Loaded(std::size_t)> loader,
                    std::function<Result(Loaded, std::size_t)> computer,
                    unsigned jobs,
                    std::uint64_t bytes)
        : cost(std::move(costs)),
          load(std::move(loader)),
          compute(std::move(computer)),
          budget(bytes),
          done(cost.size()),
          failures(cost.size()) {
        try {
            for (unsigned i = 0; i < std::max(1u, jobs); ++i) workers.emplace_back([this] { work(); });
        } catch (...) {
            stop();
            throw;
        }
    }
    // Stops the workers; entries not taken are dropped.
    ~OrderedPipeline() { stop(); }
    OrderedPipeline(const OrderedPipeline&) = delete;
    OrderedPipeline& operator=(const OrderedPipeline&) = delete;

    // Entry index, once computed. Rethrows what loading or computing threw
    // for it.
    // REQUIRES: indexes are taken in order, each once.
    Result take(std::size_t index) {
        std::unique_lock<std::mutex> lock(mutex);
        awaited = index;
        ready.wait(lock, [&] { return done[index].has_value() || failures[index] != nullptr; });
        awaited = kNone;
        held -= cost[index];
        // Workers waiting for room are woken once half the budget is free,
        // not at every entry: on a virtual machine a wake-up costs about as
        // much as inflating a small entry.
        if (roomWaiters > 0 && (held == 0 || (next < cost.size() && held + cost[next] <= budget / 2)))
            room.notify_all();
        if (failures[index] != nullptr) std::rethrow_exception(failures[index]);
        Result result = std::move(*done[index]);
        done[index].reset();
        return result;
    }

    // Runs f while no entry is loading: for a caller that uses what the
    // loader uses.
    template <typename F>
    auto whileNotLoading(F&& f) -> decltype(f()) {
        const std::lock_guard<std::mutex> lock(loading);
        return f();
    }

private:
    void work() {
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                ++roomWaiters;
                room.wait(lock, [&] { return stopping || next == cost.size() || hasRoom(); });
                --roomWaiters;
                if (stopping || next == cost.size()) return;
            }
            // Entries are claimed and loaded under one lock, so that they
            // load in entry order without waiting for a turn.
            std::unique_lock<std::mutex> one(loading);
            std::size_t index = 0;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                if (stopping || next == cost.size()) return;
                if (!hasRoom()) continue;  // another worker took it
                index = next++;
                held += cost[index];
            }
            std::exception_ptr failure;
            std::optional<Loaded> input;
            try {
                input.emplace(load(index));
            } catch (...) {
                failure = std::current_exception();
            }
            one.unlock();
            std::optional<Result> result;
            try {
                if (input) result.emplace(compute(std::move(*input), index));
            } catch (...) {
                failure = std::current_exception();
            }
            input.reset();
            const std::lock_guard<std::mutex> lock(mutex);
            done[index] = std::move(result);
            failures[index] = failure;
            if (awaited == index) ready.notify_one();
        }
    }

    // REQUIRES: mutex held.
    bool hasRoom() const { return held == 0 || held + cost[next] <= budget; }

    void stop() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        room.notify_all();
        for (std::thread& worker : workers) worker.join();
    }

    const std::vector<std::uint64_t> cost;
    const std::function<Loaded(std::size_t)> load;
    const std::function<Result(Loaded, std::size_t)> compute;
    const std::uint64_t budget;

    static constexpr std::size_t kNone = ~std::size_t{0};

    std::mutex mutex;
    std::condition_variable ready;  // the entry the consumer awaits is done
    std::condition_variable room;   // the budget has room for the next entry
    std::mutex loading;
    std::vector<std::optional<Result>> done;
    std::vector<std::exception_ptr> failures;
    std::size_t next = 0;         // the next entry a worker claims
    std::uint64_t held = 0;       // cost of entries claimed and not yet taken
    std::size_t awaited = kNone;  // the entry the consumer waits for
    unsigned roomWaiters = 0;
    bool stopping = false;
    std::vector<std::thread> workers;  // last: they use every member above
};

}  // namespace opcdir
