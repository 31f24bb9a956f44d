// The viewer's file player and recorder, each in a live chain with the
// plug-in's nodes; recordings are replayed by the qlarrun binary.
#include "AppTestSupport.h"

#include <ChainBuilder.h>
#include <CxChain.h>
#include <CxImageData.h>
#include <CxPluginManager.h>
#include <CxSyntheticCamera.h>
#include <FilePlayer.h>
#include <Recorder.h>
#include <SxCameraDescription.h>
#include <TiffIo.h>

#include <QtCore/QMutex>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <sys/resource.h>
#include <tiffio.h>

#include <cerrno>
#include <csignal>

namespace {

CxChainable* makeNode(const QString& text)
{
    SxNodeRequest request;
    QString error;
    CxChainable* node = CxChainBuilder::parseNodeRequest(text, request, &error)
                            ? CxChainBuilder::createNode(request.name, &error) : nullptr;
    if (node && CxChainBuilder::applySettings(node, request, &error) != ExitOk)
        delete node, node = nullptr;
    return node;
}

// A live chain that keeps its outputs' frame numbers and widths, and what a
// player told it; signals are taken on the thread that emits them.
struct SxRig
{
    QMutex lock;
    QList<qint32> numbers;
    QList<quint32> widths;
    QString failure;
    std::atomic<int> finished{0}, formatChanged{0}, failed{0};
    qint64 index = -1, count = -1;
    CxChain chain;  // last: stopped before the rest goes

    SxRig(CxImageSource* source, const QStringList& nodes)
    {
        chain.setSource(source);
        for (const QString& node : nodes)
            chain.appendNode(makeNode(node));
        chain.setOutputHandler([this](IxChainData* packet) {
            if (auto* image = qobject_cast<CxImageData*>(packet)) {
                QMutexLocker locker(&lock);
                numbers << image->picBuf()->frameNumber;
                widths << image->picBuf()->width;
            }
            delete packet;
        });
        if (auto* player = qobject_cast<CxFilePlayer*>(source)) {
            QObject::connect(player, &CxFilePlayer::finished, [this] { ++finished; });
            QObject::connect(player, &CxFilePlayer::formatChanged, [this] { ++formatChanged; });
            QObject::connect(player, &CxFilePlayer::failed, [this](const QString& why) {
                QMutexLocker locker(&lock);
                failure = why;
                ++failed;
            });
            QObject::connect(player, &CxFilePlayer::positionChanged, [this](qint64 i, qint64 n) {
                QMutexLocker locker(&lock);
                index = i, count = n;
            });
        }
    }
    qsizetype outputs()
    {
        QMutexLocker locker(&lock);
        return numbers.size();
    }
};

// f000.tif, f001.tif, ... from first on, each with samples of its own.
void writeTiffs(const QString& dir, int count, quint32 width, ExImageDataType type, int first = 0)
{
    for (int i = first; i < first + count; ++i) {
        SxHeapPicture p;
        QString error;
        QVERIFY(makePicture(p, type, width, 8, 1, 0, quint32(i)));
        QVERIFY2(TiffIo::write(QString("%1/f%2.tif").arg(dir).arg(i, 3, 10, QChar('0')), p.pic, nullptr, false, &error),
                 qPrintable(error));
    }
}

void writeMultiPage(const QString& path, int pages)
{
    TIFF* tif = TIFFOpen(QFile::encodeName(path).constData(), "w");
    QVERIFY(tif);
    std::vector<uchar> row(24);
    for (int page = 0; page < pages; ++page) {
        TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, 24);
        TIFFSetField(tif, TIFFTAG_IMAGELENGTH, 8);
        TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
        TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 1);
        TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        for (quint32 y = 0; y < 8; ++y) {
            std::fill(row.begin(), row.end(), uchar(page * 8 + y));
            TIFFWriteScanline(tif, row.data(), y, 0);
        }
        TIFFWriteDirectory(tif);
    }
    TIFFClose(tif);
}

CxFilePlayer* openPlayer(const QString& input)
{
    SxInputRequest request;
    request.inputs = {input};
    QString error;
    CxFilePlayer* player = CxFilePlayer::create(request, nullptr, &error);
    if (!player)
        qWarning() << error;
    return player;
}

QList<qint32> upTo(int n)
{
    QList<qint32> list;
    for (int i = 0; i < n; ++i)
        list << i;
    return list;
}

} // namespace

class TestMedia : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(CxPluginManager::instance()->loadFolder(QLAR_PLUGIN_DIR) > 0); }

    void playsEveryFrame_data()
    {
        QTest::addColumn<bool>("multiPage");
        QTest::newRow("folder") << false;
        QTest::newRow("multi-page TIFF") << true;
    }
    void playsEveryFrame()
    {
        QFETCH(bool, multiPage);
        QTemporaryDir dir;
        multiPage ? writeMultiPage(dir.filePath("stack.tif"), 6) : writeTiffs(dir.path(), 6, 24, IDT_UINT16);
        CxFilePlayer* player = openPlayer(dir.path());
        QVERIFY(player);
        SxRig rig(player, {"Median Filter"});
        QVERIFY(rig.chain.start());
        QVERIFY(rig.chain.waitForFinished(10000));
        QCOMPARE(rig.numbers, upTo(6));
        QCOMPARE(rig.finished.load(), 1);
        QCOMPARE(rig.index, 6);
        QCOMPARE(rig.count, 6);
        QVERIFY(player->atEnd());
    }

    // Frames the player hands on within a window, and none once paused.
    void playback_data()
    {
        QTest::addColumn<bool>("loop");
        QTest::addColumn<double>("fps");
        QTest::addColumn<int>("steps");  // -1: plays
        QTest::addColumn<int>("windowMs");
        QTest::addColumn<int>("least");
        QTest::addColumn<int>("most");
        QTest::newRow("paused") << false << 0.0 << 0 << 300 << 0 << 0;
        QTest::newRow("one step") << false << 0.0 << 1 << 300 << 1 << 1;
        QTest::newRow("three steps") << false << 0.0 << 3 << 300 << 3 << 3;
        QTest::newRow("end") << false << 0.0 << -1 << 300 << 5 << 5;
        QTest::newRow("loop") << true << 0.0 << -1 << 300 << 11 << 1000000;
        QTest::newRow("loop at 20 fps") << true << 20.0 << -1 << 1000 << 8 << 35;
    }
    void playback()
    {
        QFETCH(bool, loop);
        QFETCH(double, fps);
        QFETCH(int, steps);
        QFETCH(int, windowMs);
        QFETCH(int, least);
        QFETCH(int, most);
        QTemporaryDir dir;
        writeTiffs(dir.path(), 5, 24, IDT_UINT8);
        CxFilePlayer* player = openPlayer(dir.path());
        QVERIFY(player);
        player->setLoop(loop);
        player->setFrameRate(fps);
        if (steps >= 0)
            player->pause();
        SxRig rig(player, {"Median Filter"});
        QVERIFY(rig.chain.start());
        for (int i = 0; i < steps; ++i)
            player->step();
        QTest::qWait(windowMs);
        const qint64 grabbed = rig.chain.stats().grabbed;
        QVERIFY2(grabbed >= least && grabbed <= most, qPrintable(QString::number(grabbed)));
        player->pause();
        const qint64 paused = rig.chain.stats().grabbed;
        QTest::qWait(100);
        QVERIFY(rig.chain.stats().grabbed <= paused + 1);
        QElapsedTimer clock;
        clock.start();
        rig.chain.stop();
        QVERIFY(clock.elapsed() < 500);
        for (int i = 0; i < rig.numbers.size(); ++i)
            QCOMPARE(rig.numbers[i], i % 5);
    }

    void formatChange_data()
    {
        QTest::addColumn<quint32>("width");
        QTest::addColumn<ExImageDataType>("type");
        QTest::newRow("size") << 32u << IDT_UINT8;
        QTest::newRow("sample type") << 24u << IDT_UINT16;
    }
    void formatChange()
    {
        QFETCH(quint32, width);
        QFETCH(ExImageDataType, type);
        QTemporaryDir dir;
        writeTiffs(dir.path(), 2, 24, IDT_UINT8);
        writeTiffs(dir.path(), 2, width, type, 2);
        SxRig rig(openPlayer(dir.path()), {"Median Filter"});
        QVERIFY(rig.chain.start());
        QTRY_COMPARE(rig.formatChanged.load(), 1);
        QTest::qWait(100);
        QCOMPARE(rig.formatChanged.load(), 1);
        QCOMPARE(rig.outputs(), 2);
        rig.chain.stop();
        QVERIFY(rig.chain.start());
        SxPicBufInfo format;
        QVERIFY(rig.chain.negotiatedFormat(-1, format));
        QCOMPARE(format.width, width);
        QCOMPARE(format.dataType, type);
        QVERIFY(rig.chain.waitForFinished(5000));
        QCOMPARE(rig.numbers, upTo(4));
        QCOMPARE(rig.widths, (QList<quint32>{24, 24, width, width}));
    }

    void brokenFile_data()
    {
        QTest::addColumn<bool>("removed");
        QTest::newRow("garbage") << false;
        QTest::newRow("removed") << true;
    }
    void brokenFile()
    {
        QFETCH(bool, removed);
        QTemporaryDir dir;
        writeTiffs(dir.path(), 3, 24, IDT_UINT8);
        CxFilePlayer* player = openPlayer(dir.path());
        QVERIFY(player);
        const QString broken = dir.filePath("f001.tif");
        QVERIFY(removed ? QFile::remove(broken) : writeFile(broken, QByteArray("II*\0garbage", 11)));
        SxRig rig(player, {"Median Filter"});
        QVERIFY(rig.chain.start());
        QVERIFY(rig.chain.waitForFinished(5000));
        QCOMPARE(rig.failed.load(), 1);
        QVERIFY2(rig.failure.contains("f001.tif"), qPrintable(rig.failure));
        QCOMPARE(rig.numbers, upTo(1));
        QVERIFY(player->atEnd());
    }

    // Recorded frames replayed by qlarrun with the command the recording's
    // README gives must come out sample for sample, and no more of them.
    void recordReplay_data()
    {
        QTest::addColumn<QStringList>("nodes");
        QTest::addColumn<int>("stage");
        QTest::addColumn<int>("frames");
        QTest::addColumn<int>("filesPerFrame");
        QTest::newRow("input") << QStringList{"Extract Channel"} << -1 << 4 << 1;
        QTest::newRow("one node") << QStringList{"Extract Channel"} << 0 << 5 << 1;
        QTest::newRow("averaging") << QStringList{"Extract Channel", "Image Averaging:averageCount=3"} << 1 << 3 << 1;
        QTest::newRow("merged by first number") << QStringList{"Merge Sequence:mergeSeqCount=4"} << 0 << 2 << 1;
        QTest::newRow("spectrum") << QStringList{"Extract Channel", "Fast Fourier Transform 2D"} << 1 << 2 << 2;
    }
    void recordReplay()
    {
        QFETCH(QStringList, nodes);
        QFETCH(int, stage);
        QFETCH(int, frames);
        QFETCH(int, filesPerFrame);
        QTemporaryDir dir;
        const QString folder = dir.filePath("rec");
        CxRecorder recorder;
        std::atomic<int> finished{0};
        connect(&recorder, &CxRecorder::finished, [&] { ++finished; });
        CxSyntheticCamera::SxConfig config;
        config.width = 64;
        config.height = 48;
        {
            SxRig rig(new CxSyntheticCamera(config), nodes);
            rig.chain.setObserver([&](int s, const IxChainData* packet) { recorder.offer(s, packet); });
            QString error;
            QVERIFY2(recorder.start(folder, stage, rig.chain.nodes().mid(0, stage + 1), SxCameraDescription(), frames,
                                    &error), qPrintable(error));
            QVERIFY(rig.chain.start());
            QTRY_VERIFY_WITH_TIMEOUT(!recorder.isRecording(), 20000);
        }
        recorder.stop();
        QCOMPARE(finished.load(), 1);
        QCOMPARE(recorder.framesRecorded(), frames);

        QStringList args;
        for (const QString& line : QString::fromUtf8(fileBytes(folder + "/README.txt")).split('\n'))
            if (line.trimmed().startsWith("qlarrun "))
                args = line.trimmed().split(' ', Qt::SkipEmptyParts).mid(1);
        const SxRun run = runQlarrun(args, folder);
        QVERIFY2(run.status == 0, qPrintable(run.err));
        const QStringList recorded = QDir(folder).entryList({"frame_*.tif"}, QDir::Files, QDir::Name);
        QCOMPARE(recorded.size(), frames * filesPerFrame);
        QCOMPARE(QDir(folder + "/replay").entryList({"frame_*.tif"}, QDir::Files, QDir::Name), recorded);
        for (const QString& name : recorded) {
            SxHeapPicture a, b;
            QString why;
            QVERIFY(readPicture(folder + "/" + name, a) && readPicture(folder + "/replay/" + name, b));
            QVERIFY2(samePixels(a.pic, b.pic, &why), qPrintable(name + ": " + why));
        }
        QString error;
        QVERIFY(!recorder.start(folder, -1, {}, SxCameraDescription(), 1, &error));
    }

    // Files stop growing past a few KB half way through; what was written
    // stays whole and nothing partial is left.
    void writeFailure()
    {
        QTemporaryDir dir;
        const QString folder = dir.filePath("rec");
        CxRecorder recorder;
        QString failure;
        QMutex lock;
        connect(&recorder, &CxRecorder::failed, [&](const QString& why) {
            QMutexLocker locker(&lock);
            failure = why;
        });
        CxSyntheticCamera::SxConfig config;
        config.width = config.height = 64;
        {
            SxRig rig(new CxSyntheticCamera(config), {"Extract Channel"});
            rig.chain.setObserver([&](int s, const IxChainData* packet) { recorder.offer(s, packet); });
            QString error;
            QVERIFY(recorder.start(folder, 0, rig.chain.nodes(), SxCameraDescription(), 0, &error));
            QVERIFY(rig.chain.start());
            QTRY_VERIFY(recorder.framesRecorded() >= 2);
            rlimit saved;
            QCOMPARE(getrlimit(RLIMIT_FSIZE, &saved), 0);
            rlimit small = saved;
            small.rlim_cur = 2048;
            const auto handler = std::signal(SIGXFSZ, SIG_IGN);
            QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
            QTRY_VERIFY(!recorder.isRecording());
            setrlimit(RLIMIT_FSIZE, &saved);
            std::signal(SIGXFSZ, handler);
        }
        recorder.stop();
        QCOMPARE(recorder.failures(), 1);
        QVERIFY2(failure.contains("frame_") && failure.contains(qt_error_string(EFBIG)), qPrintable(failure));
        for (const QString& sub : {folder, folder + "/input"}) {
            for (const QString& name : QDir(sub).entryList(QDir::Files | QDir::Hidden)) {
                QVERIFY2(!name.startsWith('.'), qPrintable(name));
                SxHeapPicture p;
                QVERIFY(!name.startsWith("frame_") || readPicture(sub + "/" + name, p));
            }
        }
    }

    void snapshot_data()
    {
        QTest::addColumn<ExImageDataType>("type");
        QTest::addColumn<quint32>("channels");
        QTest::addColumn<bool>("spectrum");
        QTest::addColumn<QStringList>("files");
        QTest::newRow("u16") << IDT_UINT16 << 1u << false << QStringList{"shot.png", "shot.tif"};
        QTest::newRow("colour") << IDT_UINT8 << 3u << false << QStringList{"shot.png", "shot.tif"};
        QTest::newRow("float") << IDT_FLOAT << 1u << false << QStringList{"shot.tif"};
        QTest::newRow("spectrum") << IDT_FLOAT << 1u << true
                                  << QStringList{"shot_im.tif", "shot_logmag.png", "shot_re.tif"};
    }
    void snapshot()
    {
        QFETCH(ExImageDataType, type);
        QFETCH(quint32, channels);
        QFETCH(bool, spectrum);
        QFETCH(QStringList, files);
        auto frame = std::make_shared<SxViewFrame>();
        frame->spectrum = spectrum;
        for (SxPicBuf* pic : {&frame->pic, &frame->im}) {
            if (pic == &frame->im && !spectrum)
                break;
            QVERIFY(CxPicBufAPI::AllocPicBufFromHeap(*pic, 13, 7, channels, type, 0, 0, 0, DSF_PACKED, CFA_NONE,
                                                     channels == 3, false, 0));
            fillPattern(*pic, pic == &frame->im ? 2 : 1);
        }
        QTemporaryDir dir;
        QString error;
        QVERIFY2(CxRecorder::snapshot(frame, dir.filePath("shot.tif"), &error), qPrintable(error));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden, QDir::Name), files);
        const QList<QPair<QString, const SxPicBuf*>> parts =
            spectrum ? QList<QPair<QString, const SxPicBuf*>>{{"shot_re.tif", &frame->pic}, {"shot_im.tif", &frame->im}}
                     : QList<QPair<QString, const SxPicBuf*>>{{"shot.tif", &frame->pic}};
        for (const auto& [name, pic] : parts) {
            SxHeapPicture back;
            QString why;
            QVERIFY(readPicture(dir.filePath(name), back));
            QVERIFY2(samePixels(back.pic, *pic, &why), qPrintable(name + ": " + why));
        }
    }
};

QTEST_MAIN(TestMedia)
#include "tst_media.moc"
