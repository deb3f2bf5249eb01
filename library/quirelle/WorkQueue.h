#pragma once

// The worker's queues. Each queue enters its owner's QueueTable as it is
// built, so that what every queue must take part in (the test for work, the
// purge when a document closes, the drop at shutdown) is a loop over the
// table, and a queue that exists cannot be left out of it. Every operation
// names the mutex that guards the queues and requires it held.

#include <cstdint>
#include <future>
#include <iterator>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

#include "ThreadSafety.h"

namespace Orvane::PDF {

// Work taken out of a queue under the lock, to be destroyed after it is
// released: destroying a queued task breaks its promise, and what a task
// captured may call back into the service.
using Discarded = std::vector<std::shared_ptr<void>>;

class QueueBase {
public:
    virtual bool Empty(const Mutex& mutex) const REQUIRES(mutex) = 0;
    // Moves out every element that the close of document id removes.
    virtual void Purge(const Mutex& mutex, int64_t id, Discarded& discarded) REQUIRES(mutex) = 0;
    // Moves out every element.
    virtual void Drop(const Mutex& mutex, Discarded& discarded) REQUIRES(mutex) = 0;

protected:
    QueueBase() = default;
    ~QueueBase() = default;
    QueueBase(const QueueBase&) = delete;
    QueueBase& operator=(const QueueBase&) = delete;
};

// Every queue of one owner, in the order they were declared.
class QueueTable {
public:
    void Add(QueueBase* queue) { queues_.push_back(queue); }

    bool AnyWork(const Mutex& mutex) const REQUIRES(mutex) {
        for (const QueueBase* queue : queues_) {
            if (!queue->Empty(mutex)) return true;
        }
        return false;
    }
    void Purge(const Mutex& mutex, int64_t id, Discarded& discarded) REQUIRES(mutex) {
        for (QueueBase* queue : queues_) queue->Purge(mutex, id, discarded);
    }
    void Drop(const Mutex& mutex, Discarded& discarded) REQUIRES(mutex) {
        for (QueueBase* queue : queues_) queue->Drop(mutex, discarded);
    }

private:
    // Filled while the owner is built, before any other thread sees it; read-only afterwards.
    std::vector<QueueBase*> queues_;
};

// A request answered through a future: its record and the packaged work.
template <class Record, class Result>
struct Queued {
    using RecordType = Record;
    Record record;
    std::packaged_task<Result(const Record&)> work;
    void Run() { work(record); }
};

namespace QueueDetail {
template <class Item>
const Item& RecordOf(const Item& item) {
    return item;
}
template <class Record, class Result>
const Record& RecordOf(const Queued<Record, Result>& item) {
    return item.record;
}
template <class Item>
struct RecordTypeOf {
    using type = Item;
};
template <class Record, class Result>
struct RecordTypeOf<Queued<Record, Result>> {
    using type = Record;
};
}  // namespace QueueDetail

// Purge rules: which records the close of document id removes.
template <class Record>
bool SameDocument(const Record& record, int64_t id) {
    return record.id == id;
}
inline bool SameDocument(const int64_t& record, int64_t id) {
    return record == id;
}
// For the open and close queues: a close never removes them.
constexpr std::nullptr_t kKeptOnClose = nullptr;

// Elements kept in a std::list (oldest first) or an ordered std::set (the
// smallest first; an element equal to one already there is not added).
template <class Item, class Container = std::list<Item>>
class WorkQueue final : public QueueBase {
public:
    using Record = typename QueueDetail::RecordTypeOf<Item>::type;
    using PurgeRule = bool (*)(const Record&, int64_t);

    WorkQueue(QueueTable& table, PurgeRule purgeRule) : purgeRule_(purgeRule) { table.Add(this); }

    bool Empty(const Mutex& mutex) const REQUIRES(mutex) override { return items_.empty(); }

    // The elements themselves, for edits beyond adding and taking the first.
    Container& Items(const Mutex& mutex) REQUIRES(mutex) { return items_; }

    void Add(const Mutex& mutex, Item item) REQUIRES(mutex) {
        if constexpr (kIsList) {
            items_.push_back(std::move(item));
        } else {
            items_.insert(std::move(item));
        }
    }

    // Moves the first element out, if there is one.
    std::optional<Item> TakeFirst(const Mutex& mutex) REQUIRES(mutex) {
        if (items_.empty()) return std::nullopt;
        if constexpr (kIsList) {
            std::optional<Item> first(std::move(items_.front()));
            items_.pop_front();
            return first;
        } else {
            return std::move(items_.extract(items_.begin()).value());
        }
    }

    void Purge(const Mutex& mutex, int64_t id, Discarded& discarded) REQUIRES(mutex) override {
        if (purgeRule_ == nullptr) return;
        MoveOut([this, id](const Item& item) { return purgeRule_(QueueDetail::RecordOf(item), id); }, discarded);
    }

    void Drop(const Mutex& mutex, Discarded& discarded) REQUIRES(mutex) override {
        MoveOut([](const Item&) { return true; }, discarded);
    }

private:
    static constexpr bool kIsList = std::is_same_v<Container, std::list<Item>>;

    template <class Matches>
    void MoveOut(Matches&& matches, Discarded& discarded) {
        auto removed = std::make_shared<Container>();
        for (auto it = items_.begin(); it != items_.end();) {
            if (!matches(*it)) {
                ++it;
            } else if constexpr (kIsList) {
                removed->splice(removed->end(), items_, it++);
            } else {
                removed->insert(items_.extract(it++));
            }
        }
        if (!removed->empty()) discarded.push_back(std::move(removed));
    }

    const PurgeRule purgeRule_;
    Container items_;
};

}  // namespace Orvane::PDF
