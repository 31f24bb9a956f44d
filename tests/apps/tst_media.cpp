// The viewer's file player and recorder, each in a live chain with the
// plug-in's nodes; recordings are replayed by the qlarrun binary.
#include "AppTestSupport.h"

#include <ChainBuilder.h>
#include <CxChain.h>
#include <CxImageData.h>
#include <CxPluginManager.h>
#include <CxSyntheticCamera.h>
#include <FilePlayer.h>
#include <OutputWriter.h>
#include <Recorder.h>
#include <SxCameraDescription.h>
#include <TiffIo.h>

#include <QtCore/QMutex>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <sys/resource.h>

#include <csignal>

namespace {

// A live chain that keeps its outputs' frame numbers and counts what a
// player tells, on the thread that tells it. Nodes as qlarrun's --node.
struct SxRig
{
    QMutex lock;
    QList<qint32> numbers;
    QString failure;
    std::atomic<int> finished{0}, formatChanged{0}, failed{0};
    CxFilePlayer* player = nullptr;
    CxChain chain;  // last: stopped before the rest goes

    SxRig(CxImageSource* source, const QStringList& nodes)
    {
        chain.setSource(source);
        for (const QString& text : nodes) {
            SxNodeRequest request;
            QString error;
            QVERIFY(CxChainBuilder::parseNodeRequest(text, request, &error));
            chain.appendNode(CxChainBuilder::createNode(request.name, &error));
            QCOMPARE(CxChainBuilder::applySettings(chain.nodes().last(), request, &error), ExitOk);
        }
        chain.setOutputHandler([this](IxChainData* packet) {
            QMutexLocker locker(&lock);
            numbers << static_cast<CxImageData*>(packet)->picBuf()->frameNumber;
            delete packet;
        });
    }
    // A player over the folder, into a median filter.
    explicit SxRig(const QString& folder) : SxRig(nullptr, {"Median Filter"})
    {
        SxInputRequest request;
        request.inputs = {folder};
        QString error;
        player = CxFilePlayer::create(request, nullptr, &error);
        QVERIFY2(player, qPrintable(error));
        chain.setSource(player);
        QObject::connect(player, &CxFilePlayer::finished, [this] { ++finished; });
        QObject::connect(player, &CxFilePlayer::formatChanged, [this] { ++formatChanged; });
        QObject::connect(player, &CxFilePlayer::failed, [this](const QString& why) { failure = why, ++failed; });
    }
};

// f000.tif, f001.tif, ... (or the pages of stack.tif), each with samples of its own.
void writeFrames(const QString& dir, int first, int count, quint32 width, ExImageDataType type, bool pages = false)
{
    for (int i = first; i < first + count; ++i) {
        const kit::CxPicture p = makePicture(type, width, 8, 1, 0, quint32(i));
        QString error;
        QVERIFY(pages ? writeWithLibtiff(dir + "/stack.tif", p.pic(), SxTiffLayout(i > first ? "append" : ""))
                      : TiffIo::write(QString("%1/f%2.tif").arg(dir).arg(i, 3, 10, QChar('0')), p.pic(), nullptr, false, &error));
    }
}

struct SxPlay { int pages, later, width, type, broken, loop, fps, steps, least, most; };

} // namespace

Q_DECLARE_METATYPE(SxPlay)

class TestMedia : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(CxPluginManager::instance()->loadFolder(QLAR_PLUGIN_DIR) > 0); }

    // Six 24-pixel u8 frames into a median filter. `later` frames of another
    // format restart the chain once; a second file spoilt after the scan ends
    // playing there. Within the window the source hands on `least` to `most`
    // frames, then none once paused, and a paused player does not hold up a
    // stop.
    void plays_data()
    {
        QTest::addColumn<SxPlay>("c");
        const int u8 = IDT_UINT8;
        //                                  pages later width type broken loop fps steps least most
        QTest::newRow("folder")          << SxPlay{0, 0, 24, u8, 0, 0, 0, -1, 6, 6};
        QTest::newRow("multi-page TIFF") << SxPlay{1, 0, 24, u8, 0, 0, 0, -1, 6, 6};
        QTest::newRow("new size")        << SxPlay{0, 3, 32, u8, 0, 0, 0, -1, 9, 9};
        QTest::newRow("new sample type") << SxPlay{0, 3, 24, int(IDT_UINT16), 0, 0, 0, -1, 9, 9};
        QTest::newRow("garbage file")    << SxPlay{0, 0, 24, u8, 1, 0, 0, -1, 1, 1};
        QTest::newRow("removed file")    << SxPlay{0, 0, 24, u8, 2, 0, 0, -1, 1, 1};
        QTest::newRow("paused")          << SxPlay{0, 0, 24, u8, 0, 0, 0, 0, 0, 0};
        QTest::newRow("one step")        << SxPlay{0, 0, 24, u8, 0, 0, 0, 1, 1, 1};
        QTest::newRow("three steps")     << SxPlay{0, 0, 24, u8, 0, 0, 0, 3, 3, 3};
        QTest::newRow("loop")            << SxPlay{0, 0, 24, u8, 0, 1, 0, -1, 13, 1000000};
        QTest::newRow("loop at 20 fps")  << SxPlay{0, 0, 24, u8, 0, 1, 20, -1, 8, 35};
    }
    void plays()
    {
        QFETCH(SxPlay, c);
        const auto [pages, later, width, type, broken, loop, fps, steps, least, most] = c;
        QTemporaryDir dir;
        writeFrames(dir.path(), 0, 6, 24, IDT_UINT8, pages);
        writeFrames(dir.path(), 6, later, quint32(width), ExImageDataType(type));
        SxRig rig(dir.path());
        const QString second = dir.filePath("f001.tif");
        if (broken)
            QVERIFY(broken == 2 ? QFile::remove(second) : writeFile(second, QByteArray("II*\0junk", 8)));
        rig.player->setLoop(loop);
        rig.player->setFrameRate(fps);
        if (steps >= 0)
            rig.player->pause();
        QVERIFY(rig.chain.start());
        for (int i = 0; i < steps; ++i)
            rig.player->step();
        const int windowMs = loop || steps >= 0 ? (fps ? 1000 : 300) : 10000;
        QElapsedTimer clock;
        clock.start();
        int restarts = 0;
        while (!rig.chain.waitForFinished(20) && clock.elapsed() < windowMs) {
            if (rig.formatChanged.load() == restarts)
                continue;
            QTest::qWait(50);  // held: nothing more comes, and the news comes once
            QCOMPARE(rig.formatChanged.load(), ++restarts);
            QCOMPARE(rig.chain.stats().delivered, 6);
            rig.chain.stop();
            QVERIFY(rig.chain.start());
            SxPicBufInfo format;
            QVERIFY(rig.chain.negotiatedFormat(-1, format) && format.width == quint32(width)
                    && format.dataType == ExImageDataType(type));
        }
        const qint64 grabbed = rig.chain.stats().grabbed;
        QVERIFY2(grabbed >= least && grabbed <= most, qPrintable(QString::number(grabbed)));
        // Once pause() returns, only the frame already being read may follow.
        rig.player->pause();
        const qint64 paused = rig.chain.stats().grabbed;
        QTest::qWait(100);
        QVERIFY(rig.chain.stats().grabbed <= paused + 1);
        clock.restart();
        rig.chain.stop();
        QVERIFY(clock.elapsed() < 500);
        for (int i = 0; i < rig.numbers.size(); ++i)
            QCOMPARE(rig.numbers[i], i % (6 + later));
        if (!loop)
            QVERIFY(rig.numbers.size() == least && rig.player->position() == least - 1);
        QCOMPARE(restarts, int(later > 0));
        QCOMPARE(rig.finished.load(), int(!broken && !loop && steps < 0));
        QCOMPARE(rig.failed.load(), int(broken != 0));
        QVERIFY2(!broken || rig.failure.contains(second), qPrintable(rig.failure));
    }

    // qlarrun, given the command of the recording's README, must give the
    // recorded frames sample for sample, and no more of them; a snapshot of
    // the first is the same file. Files that may not grow past 2 KB half way
    // through fail the recording, and what was written stays whole.
    void record_data()
    {
        QTest::addColumn<QStringList>("nodes");
        for (const char* column : {"stage", "frames", "files", "limitAfter"})
            QTest::addColumn<int>(column);
        QTest::newRow("input") << QStringList{"Extract Channel"} << -1 << 4 << 4 << 0;
        QTest::newRow("one node") << QStringList{"Extract Channel"} << 0 << 5 << 5 << 0;
        QTest::newRow("averaging") << QStringList{"Extract Channel", "Image Averaging:averageCount=3"} << 1 << 3 << 3 << 0;
        QTest::newRow("merged, first number") << QStringList{"Merge Sequence:mergeSeqCount=4"} << 0 << 2 << 2 << 0;
        QTest::newRow("spectrum") << QStringList{"Extract Channel", "Fast Fourier Transform 2D"} << 1 << 2 << 4 << 0;
        QTest::newRow("file size limit") << QStringList{"Extract Channel"} << 0 << 0 << 0 << 2;
    }
    void record()
    {
        QFETCH(QStringList, nodes);
        QFETCH(int, stage);
        QFETCH(int, frames);
        QFETCH(int, files);
        QFETCH(int, limitAfter);
        QTemporaryDir dir;
        const QString folder = dir.filePath("rec");
        CxRecorder recorder;
        QSignalSpy finished(&recorder, &CxRecorder::finished), failed(&recorder, &CxRecorder::failed);
        QString error;
        ViewFramePtr shot;
        {
            CxSyntheticCamera::SxConfig config;
            config.width = 64, config.height = 48;
            SxRig rig(new CxSyntheticCamera(config), nodes);
            rig.chain.setObserver([&](int s, const IxChainData* packet) {
                if (s == stage && !shot)
                    shot = SxViewFrame::copyOf(packet, s);
                recorder.offer(s, packet);
            });
            QVERIFY2(recorder.start(folder, stage, rig.chain.nodes().mid(0, stage + 1), {}, frames, &error),
                     qPrintable(error));
            QVERIFY(rig.chain.start());
            QTRY_VERIFY(recorder.framesRecorded() >= limitAfter);
            rlimit saved{};
            getrlimit(RLIMIT_FSIZE, &saved);
            const rlimit small{limitAfter ? 2048 : saved.rlim_cur, saved.rlim_max};
            const auto handler = std::signal(SIGXFSZ, SIG_IGN);
            setrlimit(RLIMIT_FSIZE, &small);
            const bool ended = QTest::qWaitFor([&] { return !recorder.isRecording(); }, 20000);
            setrlimit(RLIMIT_FSIZE, &saved);
            std::signal(SIGXFSZ, handler);
            QVERIFY(ended);
        }
        recorder.stop();
        QVERIFY(!recorder.start(folder, -1, {}, {}, 1, &error));
        QCOMPARE(failed.count(), int(limitAfter > 0));
        if (limitAfter) {
            const QString failure = failed.at(0).at(0).toString();
            QVERIFY2(failure.contains("frame_") && failure.contains(qt_error_string(EFBIG)), qPrintable(failure));
            for (const QString& sub : {folder, folder + "/input"}) {
                QCOMPARE(QDir(sub).entryList({".*"}, QDir::Files | QDir::Hidden), QStringList());
                for (const QString& name : QDir(sub).entryList({"frame_*"}, QDir::Files)) {
                    kit::CxPicture p;
                    QVERIFY2(readPicture(sub + "/" + name, p), qPrintable(name));
                }
            }
            return;
        }
        QCOMPARE(finished.count(), 1);
        QCOMPARE(recorder.framesRecorded(), frames);

        const QString readme = QString::fromUtf8(fileBytes(folder + "/README.txt"));
        const QString command = readme.section("qlarrun ", 1).section('\n', 0, 0);
        const SxRun run = runQlarrun(command.split(' ', Qt::SkipEmptyParts), folder);
        QVERIFY2(run.status == 0, qPrintable(run.err));
        const QStringList recorded = QDir(folder).entryList({"frame_*.tif"}, QDir::Files, QDir::Name);
        QCOMPARE(recorded.size(), files);
        QCOMPARE(QDir(folder + "/replay").entryList({"frame_*.tif"}, QDir::Files, QDir::Name), recorded);
        for (const QString& name : recorded) {
            kit::CxPicture a, b;
            QString why;
            QVERIFY(readPicture(folder + "/" + name, a) && readPicture(folder + "/replay/" + name, b));
            QVERIFY2(kit::samePixels(a.pic(), b.pic(), &why), qPrintable(name + ": " + why));
        }

        QVERIFY2(CxRecorder::snapshot(shot, dir.filePath("shot.tif"), &error), qPrintable(error));
        const QString base = folder + "/" + CxOutputWriter::baseName(shot->pic.frameNumber);
        for (const QString& part : shot->spectrum ? QStringList{"_re", "_im"} : QStringList{""})
            QCOMPARE(fileBytes(dir.filePath("shot" + part + ".tif")), fileBytes(base + part + ".tif"));
        QVERIFY(QFile::exists(dir.filePath(shot->spectrum ? "shot_logmag.png" : "shot.png")));
    }
};

QTEST_MAIN(TestMedia)
#include "tst_media.moc"
