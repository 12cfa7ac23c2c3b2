#include <gtest/gtest.h>

#include <QMimeData>
#include <QUrl>

#include <QVDPluginDragDropHandler.h>
#include <TCriticalSection.h>
#include <TDynamicBuffer.h>

#include "AssertCatcher.h"

namespace {

TEST(HostCore, AutoLockHoldsTheSectionForItsLifetimeAndReportsANullOne)
{
    TCriticalSection section;
    {
        TAutoLockCS lock(&section);
        TAutoLockCS again(&section); // recursive, as the host's sections are
    }
    EXPECT_TRUE(section.tryLock());
    section.unlock();
    testing::internal::CaptureStderr();
    {
        TAutoLockCS lock(nullptr);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), " TAutoLockCS given a null pointer\n");
}

TEST(HostCore, DynamicBufferGrowsZeroedAndKeepsLargerStorage)
{
    TDynamicBuffer buffer;
    ASSERT_TRUE(buffer.reserve(4 * 100));
    EXPECT_GE(buffer.size(), 400u);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(buffer.floats()[i], 0.0f);
    buffer.floats()[5] = 1.0f;
    void* before = buffer.data();
    ASSERT_TRUE(buffer.reserve(16));
    EXPECT_EQ(buffer.data(), before);
    EXPECT_EQ(buffer.floats()[5], 1.0f);
    ASSERT_TRUE(buffer.reserve(4 * 1000));
    EXPECT_EQ(buffer.floats()[5], 0.0f);
}

TEST(HostCore, DynamicBufferReportsAFailedAllocation)
{
    TDynamicBuffer buffer;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(buffer.reserve(std::size_t{1} << 62));
    // A sanitizer runtime may add its own warning before ours.
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Error - new failed\n"), std::string::npos);
    EXPECT_EQ(buffer.size(), 0u);
}

class DropTarget : public QVDPluginDragDropHandler {};
class MediaHost final : public QVDDragDropHost {
public:
    void mediaDropped(const QStringList& items) override { received = items; }
    QStringList received;
};

TEST(HostCore, DropsOfFilesAndMediaPoolItemsReachTheHost)
{
    DropTarget target;
    MediaHost host;
    target.setDragDropHost(&host);

    QMimeData files;
    files.setUrls({QUrl::fromLocalFile(QStringLiteral("/tmp/a.wav"))});
    EXPECT_TRUE(target.canAcceptDrop(&files));
    EXPECT_TRUE(target.handleDrop(&files));
    EXPECT_EQ(host.received, QStringList{QStringLiteral("/tmp/a.wav")});

    QMimeData media;
    media.setData(QStringLiteral("MediaPool/Media"), "clip-1\nclip-2\n");
    EXPECT_TRUE(target.handleDrop(&media));
    EXPECT_EQ(host.received, (QStringList{QStringLiteral("clip-1"), QStringLiteral("clip-2")}));

    QMimeData text;
    text.setText(QStringLiteral("hello"));
    EXPECT_FALSE(target.canAcceptDrop(&text));
    EXPECT_FALSE(target.handleDrop(&text));
}

TEST(HostCore, ADropWithoutAHostIsAContractFailure)
{
    DropTarget target;
    QMimeData files;
    files.setUrls({QUrl::fromLocalFile(QStringLiteral("/tmp/a.wav"))});
    qvd::test::AssertCatcher capture;
    capture.reset();
    EXPECT_FALSE(target.handleDrop(&files));
    if (twa::debug::kAssertsEnabled) {
        ASSERT_EQ(capture.count(), 1u);
        EXPECT_EQ(capture.condition(0), "0 != _dragDropHost");
    }
}

TEST(HostCore, DefaultAssertReportNamesConditionAndPath)
{
    testing::internal::CaptureStderr();
    twa::debug::defaultAssertHandler("p && v_test<TAG>(p)", "AudioAlgorithms/System/x.h", 12);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ASSERT: \"p && v_test<TAG>(p)\" in file AudioAlgorithms/System/x.h, line 12\n");
}

} // namespace
