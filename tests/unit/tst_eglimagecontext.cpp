#include <zevqt-mm/eglimagecontext.h>

#include <shm/shm_reader.h>

#include <QtTest/QtTest>

using LockedFrame = std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>>;

namespace {

/*! What eglCreateImageKHR and eglDestroyImageKHR were called with; the attributes as they lay in memory. */
struct Recorded
{
    void *display = nullptr;
    void *context = nullptr;
    unsigned int target = 0;
    void *buffer = nullptr;
    QVector<int> attributes;
    void *destroyed = nullptr;
};
Recorded recorded;
void *imageToReturn = nullptr;
unsigned int destroyResult = 1;

void *createImage(void *display, void *context, unsigned int target, void *buffer, const int *attributes)
{
    recorded.display = display;
    recorded.context = context;
    recorded.target = target;
    recorded.buffer = buffer;
    recorded.attributes.clear();
    for (int i = 0; i < 64; i += 2) {
        recorded.attributes.append(attributes[i]);
        if (attributes[i] == 0x3038)
            break;
        recorded.attributes.append(attributes[i + 1]);
    }
    return imageToReturn;
}

unsigned int destroyImage(void *display, void *image)
{
    recorded.display = display;
    recorded.destroyed = image;
    return destroyResult;
}

char displayMemory;
char imageMemory;

zevgl::EGLImageContext recordingContext()
{
    zevgl::EGLImageContext context;
    context.display = &displayMemory;
    context.eglCreateImageKHR = createImage;
    context.eglDestroyImageKHR = destroyImage;
    return context;
}

} // namespace

class tst_EGLImageContext : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void withoutAContextEverythingIsNull();
    void attributes_data();
    void attributes();
    void createsOnTheDisplay();
    void failureGivesNull();
    void leavesTheFrameToTheCaller();
    void destroys_data();
    void destroys();
    void errorStrings_data();
    void errorStrings();
};

void tst_EGLImageContext::init()
{
    recorded = {};
    imageToReturn = &imageMemory;
    destroyResult = 1;
}

void tst_EGLImageContext::withoutAContextEverythingIsNull()
{
    const auto context = zevgl::EGLImageContext::currentContext();
    QVERIFY(!context.display);
    QVERIFY(!context.eglCreateImageKHR);
    QVERIFY(!context.eglDestroyImageKHR);
    QVERIFY(!context.eglGetError);
}

void tst_EGLImageContext::attributes_data()
{
    QTest::addColumn<QVideoFrame::PixelFormat>("format");
    QTest::addColumn<QVector<int>>("strides");
    QTest::addColumn<QVector<qint64>>("offsets");
    QTest::addColumn<QVector<int>>("expected");

    const auto head = [](int fourcc) {
        return QVector<int>{0x30D2, 1,      0x3057, 1920,   0x3056, 1080,
                            0x3271, fourcc, 0x327B, 0x3280, 0x327C, 0x3282};
    };
    const QVector<int> end = {0x3038};
    QTest::newRow("three planes: 31 integers")
        << QVideoFrame::Format_YUV420P << QVector<int>{2048, 1024, 1024, 0}
        << QVector<qint64>{0, 2211840, 2764800, 0}
        << head(0x32315559) +
               QVector<int>{0x3272,  9,      0x3273, 0,      0x3274, 2048,   0x3275,  9,      0x3276,
                            2211840, 0x3277, 1024,   0x3278, 9,      0x3279, 2764800, 0x327A, 1024} +
               end;
    QTest::newRow("two planes: 25 integers")
        << QVideoFrame::Format_NV12 << QVector<int>{2048, 2048, 0, 0} << QVector<qint64>{4096, 2215936, 0, 0}
        << head(0x3231564E) +
               QVector<int>{0x3272, 9, 0x3273, 4096, 0x3274, 2048, 0x3275, 9, 0x3276, 2215936, 0x3277, 2048} +
               end;
    QTest::newRow("no plane: 13 integers") << QVideoFrame::Format_NV12 << QVector<int>{0, 2048, 0, 0}
                                           << QVector<qint64>{0, 0, 0, 0} << head(0x3231564E) + end;
    QTest::newRow("a fourth plane takes the first's names")
        << QVideoFrame::Format_NV12 << QVector<int>{1, 2, 3, 4} << QVector<qint64>{10, 20, 30, 40}
        << head(0x3231564E) +
               QVector<int>{0x3272, 9, 0x3273, 10, 0x3274, 1, 0x3275, 9, 0x3276, 20, 0x3277, 2,
                            0x3278, 9, 0x3279, 30, 0x327A, 3, 0x3272, 9, 0x3273, 40, 0x3274, 4} +
               end;
    QTest::newRow("unknown format: fourcc 0") << QVideoFrame::Format_Invalid << QVector<int>{0, 0, 0, 0}
                                              << QVector<qint64>{0, 0, 0, 0} << head(0) + end;
    QTest::newRow("a format without a code: fourcc 0")
        << QVideoFrame::Format_RGB32 << QVector<int>{0, 0, 0, 0} << QVector<qint64>{0, 0, 0, 0}
        << head(0) + end;
    QTest::newRow("offsets are cut to 32 bits")
        << QVideoFrame::Format_NV12 << QVector<int>{16, 0, 0, 0} << QVector<qint64>{0x100000005, 0, 0, 0}
        << head(0x3231564E) + QVector<int>{0x3272, 9, 0x3273, 5, 0x3274, 16} + end;
}

void tst_EGLImageContext::attributes()
{
    QFETCH(QVideoFrame::PixelFormat, format);
    QFETCH(QVector<int>, strides);
    QFETCH(QVector<qint64>, offsets);
    QFETCH(QVector<int>, expected);
    LockedFrame frame(new shm_video_frame_t(), [](shm_video_frame_t *record) { delete record; });
    frame->width = 1920;
    frame->height = 1080;
    for (int plane = 0; plane < 4; ++plane) {
        frame->strides[plane] = strides[plane];
        frame->plane_offsets[plane] = offsets[plane];
    }
    recordingContext().createImage(frame, 9, format);
    QCOMPARE(recorded.attributes, expected);
    // Six pairs, three for each plane up to the first without a stride, and the end.
    const int planes = static_cast<int>(strides.indexOf(0) < 0 ? 4 : strides.indexOf(0));
    QCOMPARE(recorded.attributes.size(), 2 * 6 + planes * 2 * 3 + 1);
}

void tst_EGLImageContext::createsOnTheDisplay()
{
    LockedFrame frame(new shm_video_frame_t(), [](shm_video_frame_t *record) { delete record; });
    QCOMPARE(recordingContext().createImage(frame, 9, QVideoFrame::Format_NV12),
             static_cast<void *>(&imageMemory));
    QCOMPARE(recorded.display, static_cast<void *>(&displayMemory));
    QVERIFY(!recorded.context);
    QCOMPARE(recorded.target, 0x3270u); // a DMA-buf
    QVERIFY(!recorded.buffer);
}

void tst_EGLImageContext::failureGivesNull()
{
    imageToReturn = nullptr;
    LockedFrame frame(new shm_video_frame_t(), [](shm_video_frame_t *record) { delete record; });
    QVERIFY(!recordingContext().createImage(frame, 9, QVideoFrame::Format_NV12));
}

void tst_EGLImageContext::leavesTheFrameToTheCaller()
{
    int released = 0;
    LockedFrame frame(new shm_video_frame_t(), [&](shm_video_frame_t *record) {
        ++released;
        delete record;
    });
    recordingContext().createImage(frame, 9, QVideoFrame::Format_NV12);
    QVERIFY(frame);
    QCOMPARE(released, 0);
}

void tst_EGLImageContext::destroys_data()
{
    QTest::addColumn<unsigned int>("answer");
    QTest::addColumn<bool>("expected");
    QTest::newRow("EGL_TRUE") << 1u << true;
    QTest::newRow("EGL_FALSE") << 0u << false;
}

void tst_EGLImageContext::destroys()
{
    QFETCH(unsigned int, answer);
    destroyResult = answer;
    auto context = recordingContext();
    QTEST(context.destroyImage(&imageMemory), "expected");
    QCOMPARE(recorded.display, static_cast<void *>(&displayMemory));
    QCOMPARE(recorded.destroyed, static_cast<void *>(&imageMemory));
}

void tst_EGLImageContext::errorStrings_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("text");
    const char *texts[] = {"No error",
                           "EGL not initialized or failed to initialize",
                           "Resource inaccessible",
                           "Cannot allocate resources",
                           "Unrecognized attribute or attribute value",
                           "Invalid EGL frame buffer configuration",
                           "Invalid EGL context",
                           "Current surface is no longer valid",
                           "Invalid EGL display",
                           "Inconsistent arguments",
                           "Invalid native pixmap",
                           "Invalid native window",
                           "Invalid argument",
                           "Invalid surface",
                           "Context lost"};
    int code = 0x3000;
    for (const char *text : texts) {
        QTest::addRow("0x%x", code) << code << text;
        ++code;
    }
    QTest::newRow("one past the last") << 0x300F << "Unknown error 12303";
    QTest::newRow("12345") << 12345 << "Unknown error 12345";
    QTest::newRow("7") << 7 << "Unknown error 7";
    QTest::newRow("-1") << -1 << "Unknown error -1";
}

void tst_EGLImageContext::errorStrings()
{
    QFETCH(int, code);
    QTEST(zevgl::eglErrorString(code), "text");
}

QTEST_GUILESS_MAIN(tst_EGLImageContext)
#include "tst_eglimagecontext.moc"
