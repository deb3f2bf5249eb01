#include "tests/service/ServiceTest.h"

namespace QuirelleTest {

PassClock::PassClock(IPDFProvider& service, int64_t doc, std::function<void(int)> onPass)
    : service_(service), onPass_(std::move(onPass)) {
    searchId_ = service_.SearchInDocument(
        doc, 0, L"-", [this](unsigned, const std::vector<SearchResultInfo>&, const std::shared_ptr<ITextObject>&) {
            std::unique_lock<std::mutex> lock(mutex_);
            if (!held_) {
                held_ = true;
                changed_.notify_all();
                changed_.wait(lock, [this] { return released_; });
                return;
            }
            const int pass = ++passes_;
            lock.unlock();
            if (onPass_) onPass_(pass);
            lock.lock();
            changed_.notify_all();
        });
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kTimeout, [this] { return held_; })) ADD_FAILURE() << "the worker was never held";
}

PassClock::~PassClock() {
    Release();
    if (!detached_) Stop();
}

void PassClock::Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    changed_.notify_all();
}

void PassClock::WaitForPass(int n) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kTimeout, [&] { return passes_ >= n; })) ADD_FAILURE() << "pass " << n << " never came";
}

void PassClock::Stop() { service_.StopSearch(searchId_); }

void RecordingObserver::OnPageInfo(int64_t doc, unsigned page, const Size& size, const IPage::Rotation& rotation,
                                   const Rect& rect) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        infos_.push_back({doc, page, size, rotation, rect});
        changed_.notify_all();
    }
    if (onAnswer) onAnswer();
}

void RecordingObserver::OnPageImage(int64_t doc, unsigned page, ViewType viewType, const QImage& image) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        images_.push_back({doc, page, viewType, image});
        changed_.notify_all();
    }
    if (onAnswer) onAnswer();
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
