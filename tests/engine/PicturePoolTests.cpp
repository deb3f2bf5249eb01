// The memory of page pictures: reused once a picture's last copy is gone,
// never more kept than the limit, safe to give back from any thread and after
// its owner let go of the pool.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "engine/PicturePool.h"

namespace QuirelleTest {
namespace {

using Orvane::PDF::Pdfium::PicturePool;
constexpr size_t kPicture = 100 * 100 * 4;

TEST(PicturePool, MemoryComesBackWhenTheLastCopyGoesAndFitsOnlySimilarSizes) {
    auto pool = PicturePool::Create(10 * kPicture);
    QImage first = pool->Take(100, 100);
    ASSERT_EQ(first.size(), QSize(100, 100));
    EXPECT_EQ(first.format(), QImage::Format_RGB32);
    EXPECT_EQ(first.bytesPerLine(), 400);
    const uchar* memory = first.constBits();
    QImage copy = first;
    first = QImage();
    EXPECT_EQ(pool->IdleBuffers(), 0u);  // the copy still shows it
    copy = QImage();
    EXPECT_EQ(pool->IdleBytes(), kPicture);

    EXPECT_NE(pool->Take(10, 10).constBits(), memory);    // far too large for it
    EXPECT_NE(pool->Take(100, 101).constBits(), memory);  // too small
    EXPECT_EQ(pool->Take(80, 100).constBits(), memory);
    EXPECT_TRUE(pool->Take(0, 10).isNull());
    EXPECT_TRUE(pool->Take(2000000000, 2000000000).isNull());
}

TEST(PicturePool, KeepsNoMoreThanItsLimitAndNothingAfterATrim) {
    auto pool = PicturePool::Create(3 * kPicture);
    std::vector<QImage> pictures;
    for (int i = 0; i < 5; ++i) pictures.push_back(pool->Take(100, 100));
    const uchar* newest = pictures.back().constBits();
    pictures.clear();
    EXPECT_EQ(pool->IdleBuffers(), 3u);
    EXPECT_EQ(pool->IdleBytes(), 3 * kPicture);
    EXPECT_EQ(pool->Take(100, 100).constBits(), newest);  // the oldest went first
    pool->Take(400, 400);                                 // larger than the limit: freed at once
    EXPECT_EQ(pool->IdleBuffers(), 3u);
    pool->Trim();
    EXPECT_EQ(pool->IdleBytes(), 0u);
}

TEST(PicturePool, PicturesOutliveThePoolsOwnerAndGoBackFromOtherThreads) {
    auto pool = PicturePool::Create(4 * kPicture);
    std::vector<QImage> pictures;
    for (int i = 0; i < 16; ++i) pictures.push_back(pool->Take(100, 100));
    std::weak_ptr<PicturePool> watch = pool;
    pool.reset();
    ASSERT_FALSE(watch.expired());  // the pictures hold it

    std::vector<std::thread> droppers;
    for (int t = 0; t < 4; ++t) {
        std::vector<QImage> mine(pictures.begin() + t * 4, pictures.begin() + t * 4 + 4);
        droppers.emplace_back([mine = std::move(mine)]() mutable {
            for (QImage& picture : mine) {
                picture.fill(Qt::white);  // the memory is still the picture's
                picture = QImage();
            }
        });
    }
    pictures.clear();
    for (std::thread& dropper : droppers) dropper.join();
    EXPECT_TRUE(watch.expired());  // the last picture took the pool with it
}

}  // namespace
}  // namespace QuirelleTest
