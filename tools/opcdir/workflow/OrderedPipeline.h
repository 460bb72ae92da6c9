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
        changed.wait(lock, [&] { return done[index].has_value() || failures[index] != nullptr; });
        held -= cost[index];
        changed.notify_all();
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
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            changed.wait(lock,
                         [&] { return stopping || next == cost.size() || held == 0 || held + cost[next] <= budget; });
            if (stopping || next == cost.size()) return;
            const std::size_t index = next++;
            held += cost[index];
            changed.wait(lock, [&] { return stopping || loaded == index; });
            if (stopping) return;
            lock.unlock();
            std::exception_ptr failure;
            std::optional<Loaded> input;
            {
                const std::lock_guard<std::mutex> one(loading);
                try {
                    input.emplace(load(index));
                } catch (...) {
                    failure = std::current_exception();
                }
            }
            lock.lock();
            ++loaded;
            changed.notify_all();
            lock.unlock();
            std::optional<Result> result;
            try {
                if (input) result.emplace(compute(std::move(*input), index));
            } catch (...) {
                failure = std::current_exception();
            }
            input.reset();
            lock.lock();
            done[index] = std::move(result);
            failures[index] = failure;
            changed.notify_all();
        }
    }

    void stop() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        changed.notify_all();
        for (std::thread& worker : workers) worker.join();
    }

    const std::vector<std::uint64_t> cost;
    const std::function<Loaded(std::size_t)> load;
    const std::function<Result(Loaded, std::size_t)> compute;
    const std::uint64_t budget;

    std::mutex mutex;
    std::condition_variable changed;
    std::mutex loading;
    std::vector<std::optional<Result>> done;
    std::vector<std::exception_ptr> failures;
    std::size_t next = 0;    // the next entry a worker claims
    std::size_t loaded = 0;  // entries loaded so far: the next to load
    std::uint64_t held = 0;  // cost of entries claimed and not yet taken
    bool stopping = false;
    std::vector<std::thread> workers;  // last: they use every member above
};

}  // namespace opcdir
