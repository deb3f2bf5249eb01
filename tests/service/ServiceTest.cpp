#include "tests/service/ServiceTest.h"

namespace QuirelleTest {

PassClock::PassClock(IPDFProvider& service, int64_t doc, std::function<void(int)> onPass) : service_(service) {
    state_->onPass = std::move(onPass);
    searchId_ = service_.SearchInDocument(
        doc, 0, L"-",
        [state = state_](unsigned, const std::vector<SearchResultInfo>&, const std::shared_ptr<ITextObject>&) {
            std::unique_lock<std::mutex> lock(state->mutex);
            if (!state->held) {
                state->held = true;
                state->changed.notify_all();
                state->changed.wait(lock, [&] { return state->released; });
                return;
            }
            if (state->finished) return;
            const int pass = ++state->passes;
            state->busy = true;
            lock.unlock();
            if (state->onPass) state->onPass(pass);
            lock.lock();
            state->busy = false;
            state->changed.notify_all();
        });
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (!state_->changed.wait_for(lock, kTimeout, [this] { return state_->held; })) {
        ADD_FAILURE() << "the worker was never held";
    }
}

PassClock::~PassClock() {
    Release();
    if (!detached_) service_.StopSearch(searchId_);
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->finished = true;
    state_->changed.wait(lock, [this] { return !state_->busy; });
}

void PassClock::Release() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->released = true;
    state_->changed.notify_all();
}

void PassClock::WaitForPass(int n) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (!state_->changed.wait_for(lock, kTimeout, [&] { return state_->passes >= n; })) {
        ADD_FAILURE() << "pass " << n << " never came";
    }
}

}  // namespace QuirelleTest
