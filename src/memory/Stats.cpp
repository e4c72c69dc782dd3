#include "memory/Stats.h"

#include <utility>

Stats::Stats(std::thread::id id, std::shared_ptr<Stats> parentStats)
    : threadId(id), parent(std::move(parentStats)) {}

bool Stats::shouldClean() {
    if (count.load(std::memory_order_relaxed) != 0) {
        idleSweeps = 0;
        return false;
    }
    ++idleSweeps;
    return idleSweeps > 0;
}

bool Stats::moveAndTryClean(const std::shared_ptr<Stats>& target) {
    long long amount = 0;
    {
        const std::lock_guard lock(mutex);
        if (shouldClean()) {
            retired = true;
            return true;
        }
        amount = count.exchange(0, std::memory_order_relaxed);
    }
    // The own lock is released by now: no thread ever waits for one record while it holds another.
    target->changeAndTryMove(amount);
    return false;
}

bool Stats::isRetired() {
    const std::lock_guard lock(mutex);
    return retired;
}

void StatsMap::put(std::thread::id id, std::shared_ptr<Stats> stats) {
    // Swapped rather than assigned, so that the replaced record is destroyed after the unlock.
    const std::lock_guard lock(mutex);
    map[id].swap(stats);
}

std::shared_ptr<Stats> StatsMap::find(std::thread::id id) {
    const std::lock_guard lock(mutex);
    const auto entry = map.find(id);
    return entry == map.end() ? nullptr : entry->second;
}

void StatsMap::clone(std::vector<std::shared_ptr<Stats>>& out) {
    const std::lock_guard lock(mutex);
    out.reserve(out.size() + map.size());
    for (const auto& entry : map) out.push_back(entry.second);
}

void StatsMap::clean(const std::vector<std::shared_ptr<Stats>>& retired) {
    for (const auto& record : retired) {
        std::shared_ptr<Stats> registered = find(record->threadId);
        if (!registered || !registered->isRetired()) continue;
        const std::lock_guard lock(mutex);
        const auto entry = map.find(record->threadId);
        // The thread may have registered a new record between the two looks.
        if (entry != map.end() && entry->second == registered) map.erase(entry);
    }
}
