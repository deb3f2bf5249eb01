#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/EventHandlerList.h"

namespace {

struct Listener;
using List = Orvane::Core::EventHandlerList<Listener>;

struct Listener {
    explicit Listener(std::string name, std::vector<std::string>* log) : name(std::move(name)), log(log) {}
    virtual ~Listener() = default;
    virtual void OnValue(int value) {
        log->push_back(name + ":" + std::to_string(value));
        if (onCall) onCall();
    }
    std::string name;
    std::vector<std::string>* log;
    std::function<void()> onCall;
};

class EventHandlerListTest : public ::testing::Test {
protected:
    std::vector<std::string> log;
    List list;
    Listener a{"a", &log}, b{"b", &log}, c{"c", &log};
};

TEST_F(EventHandlerListTest, NotifiesInRegistrationOrderOnceEach) {
    list.RegisterEventHandler(&a);
    list.RegisterEventHandler(&b);
    list.RegisterEventHandler(&a);  // held once
    list.RegisterEventHandler(nullptr);
    list.Notify(&Listener::OnValue, 1);
    list.UnregisterEventHandler(&a);  // registered twice, removed once: gone
    list.UnregisterEventHandler(&c);  // never registered
    list.UnregisterEventHandler(nullptr);
    EXPECT_EQ(list.Count(), 1u);
    list.Notify(&Listener::OnValue, 2);
    list.RegisterEventHandler(&a);  // again: now after b
    list.Notify(&Listener::OnValue, 3);
    EXPECT_EQ(log, (std::vector<std::string>{"a:1", "b:1", "b:2", "b:3", "a:3"}));
}

TEST_F(EventHandlerListTest, ChangesDuringANotificationTakeEffectFromTheNext) {
    list.RegisterEventHandler(&a);
    list.RegisterEventHandler(&b);
    // a removes b and adds c while being notified: b still hears this
    // notification (snapshot), c does not; the next one reaches a and c.
    a.onCall = [&] {
        list.UnregisterEventHandler(&b);
        list.RegisterEventHandler(&c);
        a.onCall = nullptr;
    };
    list.Notify(&Listener::OnValue, 1);
    list.Notify(&Listener::OnValue, 2);
    EXPECT_EQ(log, (std::vector<std::string>{"a:1", "b:1", "a:2", "c:2"}));
}

// A viewer unregisters its observer on the GUI thread and destroys it at once,
// while the worker may be calling it from an older snapshot.
TEST_F(EventHandlerListTest, UnregisterFromAnotherThreadWaitsForTheNotificationInFlight) {
    std::promise<void> entered, release;
    list.RegisterEventHandler(&a);
    a.onCall = [&] {
        entered.set_value();
        release.get_future().wait();
    };
    std::thread notifier([&] { list.Notify(&Listener::OnValue, 1); });
    entered.get_future().wait();
    auto unregistered = std::async(std::launch::async, [&] { list.UnregisterEventHandler(&a); });
    EXPECT_EQ(unregistered.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    release.set_value();
    unregistered.get();
    notifier.join();
    EXPECT_EQ(list.Count(), 0u);
}

TEST_F(EventHandlerListTest, AHandlerThatThrowsEndsTheNotification) {
    list.RegisterEventHandler(&a);
    list.RegisterEventHandler(&b);
    a.onCall = [] { throw std::runtime_error("observer failed"); };
    EXPECT_THROW(list.Notify(&Listener::OnValue, 3), std::runtime_error);
    EXPECT_EQ(log, (std::vector<std::string>{"a:3"}));
    // The list is still usable: the notification mutex was released.
    a.onCall = nullptr;
    list.Notify(&Listener::OnValue, 4);
    EXPECT_EQ(log.back(), "b:4");
}

TEST_F(EventHandlerListTest, ArgumentsAreCopiedIntoTheCall) {
    struct Holder {
        virtual ~Holder() = default;
        virtual void OnText(const std::string& text) {
            seen = &text;
            value = text;
        }
        const std::string* seen = nullptr;
        std::string value;
    } holder;
    Orvane::Core::EventHandlerList<Holder> holders;
    holders.RegisterEventHandler(&holder);
    std::string original = "page";
    holders.Notify(&Holder::OnText, original);
    EXPECT_EQ(holder.value, "page");
    EXPECT_NE(holder.seen, &original);
}

}  // namespace
