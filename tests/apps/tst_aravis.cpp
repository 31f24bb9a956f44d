// The GenICam source against the library's two simulated cameras: the
// in-process fake (every supported kind of picture it offers, through a real
// node of the plug-in) and the GigE Vision simulator on 127.0.0.1, killed
// while it streams and started again.
#include <AravisCamera.h>
#include <ChainBuilder.h>

#include <CxChain.h>
#include <CxImageData.h>
#include <CxPicBufAPI.h>
#include <CxPluginManager.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QProcess>
#include <QtCore/QStandardPaths>
#include <QtTest/QtTest>

#include <mutex>

namespace {

struct SxSeen
{
    qint32 frameNumber;
    quint32 timestampMs;
    float exposureUs;
    double mean;
};

// What went through a live chain: every source frame (seen between the source
// and the first node) and the outputs.
struct SxRecorder
{
    std::mutex lock;
    QList<SxSeen> frames;
    QStringList problems;  // frames whose format differs from the negotiated one
    SxPicBufInfo sourceFormat, outputFormat;
    double greenMean = 0, otherMean = 0;  // of the first mosaic frame, by its own filter array
    int outputs = 0;

    void attach(CxChain& chain)
    {
        chain.setObserver([this](int stage, const IxChainData* packet) {
            const auto* image = qobject_cast<const CxImageData*>(packet);
            if (stage == -1 && image)
                see(*image);
        });
        chain.setOutputHandler([this](IxChainData* packet) {
            const auto* image = qobject_cast<const CxImageData*>(packet);
            std::lock_guard<std::mutex> l(lock);
            if (image && !image->picBuf()->sameFormat(outputFormat) && problems.size() < 5)
                problems << "output " + image->picBuf()->describe();
            ++outputs;
            delete packet;
        });
    }

    void see(const CxImageData& image)
    {
        const SxPicBuf& pic = *image.picBuf();
        double sum = 0, sums[2] = {0, 0};
        qint64 counts[2] = {0, 0};
        for (quint32 y = 0; y < pic.height; ++y) {
            for (quint32 x = 0; x < pic.width * pic.channels; ++x) {
                const double v = pic.dataType == IDT_UINT16 ? pic.row<quint16>(y)[x] : pic.row<quint8>(y)[x];
                sum += v;
                // RGGB and BGGR have their greens on the falling diagonal of the cell.
                const bool green = ((x ^ y) & 1) == (pic.colorFilterArray == CFA_BAYER_RGGB
                                                     || pic.colorFilterArray == CFA_BAYER_BGGR);
                sums[green] += v;
                ++counts[green];
            }
        }
        std::lock_guard<std::mutex> l(lock);
        if ((!pic.sameFormat(sourceFormat) || !image.isLiveData()
             || image.metadata()->colorFilterArray() != pic.colorFilterArray) && problems.size() < 5)
            problems << "source " + pic.describe();
        if (frames.isEmpty() && isTwoByTwoMosaic(pic.colorFilterArray)) {
            greenMean = sums[1] / qMax<qint64>(counts[1], 1);
            otherMean = sums[0] / qMax<qint64>(counts[0], 1);
        }
        frames.append({pic.frameNumber, pic.timestampMs, pic.exposureTimeUs,
                       sum / qMax<quint64>(quint64(pic.width) * pic.height * pic.channels, 1)});
    }

    int frameCount()
    {
        std::lock_guard<std::mutex> l(lock);
        return frames.size();
    }
};

// A chain that runs the camera into one node of the plug-in.
bool startChain(CxChain& chain, SxRecorder& rec, const QString& node)
{
    QString error;
    CxChainable* n = CxChainBuilder::createNode(node, &error);
    if (!n)
        qWarning() << error;
    chain.setRunMode(CxChain::RunLive);
    chain.appendNode(n);
    rec.attach(chain);
    if (!chain.start())
        return false;
    return chain.negotiatedFormat(-1, rec.sourceFormat) && chain.negotiatedFormat(0, rec.outputFormat);
}

// The GigE Vision simulator; killed whatever happens to the test.
struct SxFakeGigE
{
    QProcess process;
    QString program = QStandardPaths::findExecutable("arv-fake-gv-camera-0.8");
    QString serial = QStringLiteral("QLT%1").arg(QCoreApplication::applicationPid() % 100000);

    bool start(const QStringList& extra = {})
    {
        process.start(program, QStringList{"-i", "127.0.0.1", "-s", serial} + extra);
        return process.waitForStarted(5000);
    }
    void kill()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    ~SxFakeGigE() { kill(); }
};

// The simulator takes a moment before it answers.
bool openSoon(CxAravisCamera& camera, const QString& id, QString* error)
{
    QElapsedTimer clock;
    clock.start();
    while (!camera.open(id, error) && clock.elapsed() < 8000)
        QTest::qWait(100);
    return camera.isOpen();
}

} // namespace

class TestAravis : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void fakeCamera_data();
    void fakeCamera();
    void controls();
    void gigeLostAndBack();
    void gigeBrokenFrames();
};

void TestAravis::initTestCase()
{
    QVERIFY(CxPluginManager::instance()->loadFolder(QLAR_PLUGIN_DIR) > 0);
    CxAravisCamera::enableFakeInterface();
}

void TestAravis::fakeCamera_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("node");
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("cfa");
    QTest::addColumn<int>("outputWidth");

    QTest::newRow("Mono8 median") << "Mono8" << "Median Filter" << int(IDT_UINT8) << 1 << 8 << int(CFA_NONE) << 512;
    QTest::newRow("Mono16 median") << "Mono16" << "Median Filter" << int(IDT_UINT16) << 1 << 16 << int(CFA_NONE) << 512;
    QTest::newRow("BayerRG8 extract") << "BayerRG8" << "Extract Channel" << int(IDT_UINT8) << 1 << 8
                                      << int(CFA_BAYER_RGGB) << 256;
    QTest::newRow("BayerGR8 extract") << "BayerGR8" << "Extract Channel" << int(IDT_UINT8) << 1 << 8
                                      << int(CFA_BAYER_GRBG) << 256;
    QTest::newRow("BayerGB8 rotate") << "BayerGB8" << "Rotate" << int(IDT_UINT8) << 1 << 8 << int(CFA_BAYER_GBRG) << 512;
    QTest::newRow("RGB8 rotate") << "RGB8" << "Rotate" << int(IDT_UINT8) << 3 << 8 << int(CFA_NONE) << 512;
}

// 100 frames through a chain, the exposure lowered half-way from the GUI side.
void TestAravis::fakeCamera()
{
    QFETCH(QString, format);
    QFETCH(QString, node);
    QFETCH(int, type);
    QFETCH(int, channels);
    QFETCH(int, bits);
    QFETCH(int, cfa);
    QFETCH(int, outputWidth);
    const qint64 poolBefore = CxPicBufAPI::OutstandingPoolPictures();

    QString fakeId;
    for (const CxAravisCamera::SxDevice& dev : CxAravisCamera::devices())
        if (dev.protocol == "Fake")
            fakeId = dev.id;
    QVERIFY(!fakeId.isEmpty());
    auto* camera = new CxAravisCamera;
    CxChain chain;
    chain.setSource(camera);
    QString error;
    QVERIFY2(camera->open(fakeId, &error), qPrintable(error));
    QVERIFY(camera->pixelFormats().contains(format));
    QVERIFY2(camera->setPixelFormat(format, &error), qPrintable(error));
    QCOMPARE(camera->pixelFormat(), format);
    QVERIFY2(camera->setFrameRate(200, &error), qPrintable(error));
    QVERIFY2(camera->setExposure(10000, &error), qPrintable(error));

    SxRecorder rec;
    QVERIFY2(startChain(chain, rec, node), qPrintable(chain.lastError()));
    QCOMPARE(int(rec.sourceFormat.dataType), type);
    QCOMPARE(int(rec.sourceFormat.channels), channels);
    QCOMPARE(int(rec.sourceFormat.bitsPerSample), bits);
    QCOMPARE(int(rec.sourceFormat.colorFilterArray), cfa);
    QCOMPARE(rec.sourceFormat.isBlueFirstColour(), channels == 3);
    QCOMPARE(int(rec.outputFormat.width), outputWidth);
    QVERIFY(!camera->setPixelFormat("Mono8", &error));  // refused while streaming

    QTRY_VERIFY_WITH_TIMEOUT(rec.frameCount() >= 40, 10000);
    QVERIFY2(camera->setExposure(2000, &error), qPrintable(error));
    QCOMPARE(camera->exposure(), 2000.0);
    QTRY_VERIFY_WITH_TIMEOUT(rec.frameCount() >= 100, 10000);
    chain.stop();
    camera->close();
    QVERIFY(!camera->isOpen());
    QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), poolBefore);

    std::lock_guard<std::mutex> l(rec.lock);
    QVERIFY2(rec.problems.isEmpty(), qPrintable(rec.problems.join("; ")));
    QVERIFY(rec.outputs > 0);
    const CxAravisCamera::SxCounters counters = camera->counters();
    QCOMPARE(counters.delivered, chain.stats().grabbed);
    QCOMPARE(counters.incomplete + counters.failed, qint64(0));
    // Numbered from the first frame on, in order, and timed.
    QCOMPARE(rec.frames.first().frameNumber, 0);
    for (int i = 1; i < rec.frames.size(); ++i) {
        QVERIFY(rec.frames[i].frameNumber > rec.frames[i - 1].frameNumber);
        QVERIFY(rec.frames[i].timestampMs >= rec.frames[i - 1].timestampMs);
    }
    QVERIFY(rec.frames.last().timestampMs > 0);
    // The simulator's pictures darken with a shorter exposure.
    const double before = rec.frames[10].mean, after = rec.frames.last().mean;
    QCOMPARE(rec.frames[10].exposureUs, 10000.f);
    QCOMPARE(rec.frames.last().exposureUs, 2000.f);
    QVERIFY2(after < 0.85 * before, qPrintable(QString("%1 -> %2").arg(before).arg(after)));
    // The simulator's scene is greener than it is red or blue: the cells the
    // filter array calls green must be the bright ones.
    if (isTwoByTwoMosaic(cfa))
        QVERIFY2(rec.greenMean > rec.otherMean + 4, qPrintable(QString("%1 vs %2").arg(rec.greenMean).arg(rec.otherMean)));
}

void TestAravis::controls()
{
    CxAravisCamera camera;
    QString error;
    double lo = 0, hi = 0;
    QVERIFY(!camera.exposureRange(lo, hi));
    QVERIFY(!camera.setExposure(1000, &error));
    QVERIFY(!error.isEmpty());
    SxPicBufInfo info;
    QVERIFY(!camera.sourceFormat(info, nullptr));
    QVERIFY(!camera.open("no such camera", &error));
    QVERIFY(error.contains("no such camera"));

    QVERIFY2(camera.open(QString(), &error), qPrintable(error));  // the first device: the fake here
    struct SxControl
    {
        bool (CxAravisCamera::*range)(double&, double&) const;
        double (CxAravisCamera::*get)() const;
        bool (CxAravisCamera::*set)(double, QString*);
    };
    const SxControl controls[] = {
        {&CxAravisCamera::exposureRange, &CxAravisCamera::exposure, &CxAravisCamera::setExposure},
        {&CxAravisCamera::gainRange, &CxAravisCamera::gain, &CxAravisCamera::setGain},
        {&CxAravisCamera::frameRateRange, &CxAravisCamera::frameRate, &CxAravisCamera::setFrameRate},
    };
    for (const SxControl& c : controls) {
        QVERIFY((camera.*c.range)(lo, hi));
        QVERIFY(lo < hi);
        const double mid = lo + std::floor((hi - lo) / 2);
        // The camera keeps what its registers can hold (a frame period in µs).
        QVERIFY2((camera.*c.set)(mid, &error), qPrintable(error));
        QVERIFY(qAbs((camera.*c.get)() - mid) <= 1e-3 * mid);
        QVERIFY(!(camera.*c.set)(hi + (hi - lo), &error));
        QVERIFY(!(camera.*c.set)(qQNaN(), &error));
        QVERIFY(qAbs((camera.*c.get)() - mid) <= 1e-3 * mid);
    }
    QVERIFY(!camera.setPixelFormat("Mono12Packed", &error));
    QVERIFY(error.contains("Mono12Packed"));
}

// Discovered on loopback, streamed, killed mid-stream, started again.
void TestAravis::gigeLostAndBack()
{
    SxFakeGigE fake;
    if (fake.program.isEmpty())
        QSKIP("arv-fake-gv-camera-0.8 is not installed (Debian package aravis-tools)");
    QVERIFY(fake.start());
    const qint64 poolBefore = CxPicBufAPI::OutstandingPoolPictures();

    CxAravisCamera::SxDevice found;
    QElapsedTimer clock;
    clock.start();
    while (found.id.isEmpty() && clock.elapsed() < 8000)
        for (const CxAravisCamera::SxDevice& dev : CxAravisCamera::devices())
            if (dev.protocol == "GigEVision" && dev.serial == fake.serial)
                found = dev;
    QVERIFY2(!found.id.isEmpty(), "the simulator was not discovered on loopback");
    QCOMPARE(found.address, QString("127.0.0.1"));
    qInfo("GigE Vision simulator discovered as %s after %lld ms", qPrintable(found.id), clock.elapsed());

    auto* camera = new CxAravisCamera;
    CxChain chain;
    chain.setSource(camera);
    QString error, lostMessage;
    int lostCount = 0;
    connect(camera, &CxAravisCamera::cameraLost, this, [&](const QString& m) { lostMessage = m, ++lostCount; },
            Qt::QueuedConnection);
    // A loaded machine may answer the first reads late: the simulator gets
    // the same grace as a camera coming back.
    for (clock.restart(); !camera->open(found.id, &error) && clock.elapsed() < 8000;)
        QTest::qWait(100);
    QVERIFY2(camera->isOpen(), qPrintable(error));
    qInfo("formats: %s", qPrintable(camera->pixelFormats().join(' ')));
    QVERIFY2(camera->setFrameRate(100, &error), qPrintable(error));
    SxRecorder rec;
    QVERIFY2(startChain(chain, rec, "Rotate"), qPrintable(chain.lastError()));
    QTRY_VERIFY_WITH_TIMEOUT(rec.frameCount() >= 100, 10000);

    fake.kill();
    clock.restart();
    QTRY_VERIFY_WITH_TIMEOUT(lostCount > 0, 15000);
    qInfo("loss noticed %lld ms after the kill: %s", clock.elapsed(), qPrintable(lostMessage));
    QVERIFY(camera->lost());
    QVERIFY(lostMessage.contains(camera->title()));
    const qint64 grabbed = chain.stats().grabbed;
    QTest::qWait(200);
    QCOMPARE(chain.stats().grabbed, grabbed);
    clock.restart();
    chain.stop();
    camera->close();
    qInfo("chain stopped and camera closed in %lld ms", clock.elapsed());
    QVERIFY(clock.elapsed() < 1000);
    QVERIFY(!chain.start());  // closed: nothing to stream
    QCOMPARE(lostCount, 1);
    QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), poolBefore);

    // Back again, opened by its address this time.
    QVERIFY(fake.start());
    QVERIFY2(openSoon(*camera, "127.0.0.1", &error), qPrintable(error));
    QVERIFY(!camera->lost());
    QVERIFY2(camera->setFrameRate(100, &error), qPrintable(error));
    const int seen = rec.frameCount();
    QVERIFY2(chain.start(), qPrintable(chain.lastError()));
    QTRY_VERIFY_WITH_TIMEOUT(rec.frameCount() >= seen + 100, 10000);
    chain.stop();
    camera->close();
    QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), poolBefore);
    std::lock_guard<std::mutex> l(rec.lock);
    QVERIFY2(rec.problems.isEmpty(), qPrintable(rec.problems.join("; ")));
}

// A camera that still answers but whose every frame misses packets is given
// up as well, and its broken buffers are counted, never delivered.
void TestAravis::gigeBrokenFrames()
{
    SxFakeGigE fake;
    if (fake.program.isEmpty())
        QSKIP("arv-fake-gv-camera-0.8 is not installed (Debian package aravis-tools)");
    QVERIFY(fake.start({"--gvsp-lost-ratio", "300"}));
    auto* camera = new CxAravisCamera;
    CxChain chain;
    chain.setSource(camera);
    QString error;
    int lostCount = 0;
    connect(camera, &CxAravisCamera::cameraLost, this, [&] { ++lostCount; }, Qt::QueuedConnection);
    QVERIFY2(openSoon(*camera, "127.0.0.1", &error), qPrintable(error));
    QVERIFY2(camera->setFrameRate(50, &error), qPrintable(error));
    SxRecorder rec;
    QVERIFY2(startChain(chain, rec, "Rotate"), qPrintable(chain.lastError()));
    QElapsedTimer clock;
    clock.start();
    QTRY_VERIFY_WITH_TIMEOUT(lostCount > 0, 10000);
    qInfo("broken stream given up after %lld ms: %s", clock.elapsed(), qPrintable(camera->lostMessage()));
    const CxAravisCamera::SxCounters counters = camera->counters();
    QCOMPARE(counters.delivered, qint64(0));
    QVERIFY(counters.incomplete + counters.failed >= 10);
    QCOMPARE(rec.frameCount(), 0);
    chain.stop();
    camera->close();
    QCOMPARE(lostCount, 1);
}

QTEST_GUILESS_MAIN(TestAravis)
#include "tst_aravis.moc"
