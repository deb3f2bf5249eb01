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

void RecordingObserver::OnPageInfo(int64_t doc, unsigned page, const Size& size, const IPage::Rotation& rotation,
                                   const Rect& rect) {
    // The waiting test may destroy this observer as soon as it is woken: the
    // lock is the last thing touched.
    if (onAnswer) onAnswer();
    std::lock_guard<std::mutex> lock(mutex_);
    infos_.push_back({doc, page, size, rotation, rect});
    changed_.notify_all();
}

void RecordingObserver::OnPageImage(int64_t doc, unsigned page, ViewType viewType, const QImage& image) {
    if (onAnswer) onAnswer();
    std::lock_guard<std::mutex> lock(mutex_);
    images_.push_back({doc, page, viewType, image});
    changed_.notify_all();
}

std::vector<RecordingObserver::Info> RecordingObserver::WaitForInfos(size_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kTimeout, [&] { return infos_.size() >= n; })) ADD_FAILURE() << "missing page infos";
    return infos_;
}

std::vector<RecordingObserver::Image> RecordingObserver::WaitForImages(size_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kTimeout, [&] { return images_.size() >= n; })) ADD_FAILURE() << "missing images";
    return images_;
}

std::vector<RecordingObserver::Info> RecordingObserver::Infos() {
    std::lock_guard<std::mutex> lock(mutex_);
    return infos_;
}

std::vector<RecordingObserver::Image> RecordingObserver::Images() {
    std::lock_guard<std::mutex> lock(mutex_);
    return images_;
}

}  // namespace QuirelleTest
