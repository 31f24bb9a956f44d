// The runner as users meet it (the built binary, its files and exit
// statuses) plus, in process, what the plug-in's nodes never provoke:
// refusals, node messages, padded and unwritable pictures. Pictures are
// checked against frames rendered here, with the row order worked out from
// the transforms, not taken from the node.
#include "CommandLine.h"
#include "PngWriter.h"
#include "Runner.h"

#include <CxImageProvider.h>
#include <CxPicBufAPI.h>
#include <CxRTTI.h>
#include <CxSyntheticCamera.h>

#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTextStream>
#include <QtTest/QtTest>

namespace {

const char* const DeinterlaceId = "de.korvel.Vistrel.CxDeinterlaceCnbl";

struct SxRun
{
    int status = -1;
    QString out, err;
};

// QLAR_PLUGIN_DIR is removed unless given, so the compiled-in folder is used.
SxRun runQlarrun(const QStringList& args, const QString& workDir = QString(), const QString& pluginEnv = QString())
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("QLAR_PLUGIN_DIR");
    if (!pluginEnv.isEmpty())
        env.insert("QLAR_PLUGIN_DIR", pluginEnv);
    process.setProcessEnvironment(env);
    process.setWorkingDirectory(workDir);
    process.start(QLAR_BIN_DIR "/qlarrun", args);
    SxRun run;
    if (process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit) {
        run.status = process.exitCode();
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        run.err = QString::fromUtf8(process.readAllStandardError());
    }
    return run;
}

// Input rows of the output: 0 keeps 0,2,4..; 1 keeps 1,3,5..; 2 and 3 put one parity first.
QList<int> rowOrder(int height, const QList<int>& transforms)
{
    QList<int> rows;
    for (int r = 0; r < height; ++r)
        rows << r;
    for (int t : transforms) {
        QList<int> even, odd;
        for (int i = 0; i < rows.size(); ++i)
            (i % 2 ? odd : even) << rows.at(i);
        rows = t == 0 ? even : t == 1 ? odd : t == 2 ? even + odd : odd + even;
    }
    return rows;
}

QImage expectedPicture(const QString& kind, int w, int h, int cfa, quint32 seed, qint64 frame,
                       const QList<int>& transforms)
{
    CxSyntheticCamera::SxConfig c;
    c.width = quint32(w);
    c.height = quint32(h);
    c.seed = seed;
    c.dataType = kind.endsWith("16") ? IDT_UINT16 : IDT_UINT8;
    c.bitsPerSample = c.dataType == IDT_UINT16 ? 16 : 8;
    c.colorFilterArray = kind.startsWith("bayer") ? ExColorFilterArray(cfa ? cfa : int(CFA_BAYER_RGGB)) : CFA_NONE;
    c.layout = kind.startsWith("mono")    ? CxSyntheticCamera::LayoutMono
               : kind.startsWith("bayer") ? CxSyntheticCamera::LayoutBayer
               : kind == "rgba8"          ? CxSyntheticCamera::LayoutRgba
                                          : CxSyntheticCamera::LayoutRgb;
    const int channels = kind == "rgba8" ? 4 : kind == "rgb8" ? 3 : 1;
    const QImage::Format format = channels == 4 ? QImage::Format_RGBA8888
                                  : channels == 3 ? QImage::Format_RGB888
                                  : c.dataType == IDT_UINT16 ? QImage::Format_Grayscale16
                                                             : QImage::Format_Grayscale8;
    SxPicBuf pic;
    if (!CxPicBufAPI::AllocPicBufFromHeap(pic, c.width, c.height, quint32(channels), c.dataType, c.bitsPerSample,
                                          0, 0, DSF_PACKED, c.colorFilterArray, channels > 1, true, 0))
        return QImage();
    CxSyntheticCamera::renderFrame(c, frame, pic);
    const QList<int> rows = rowOrder(h, transforms);
    QImage image(w, int(rows.size()), format);
    for (int r = 0; r < rows.size(); ++r)
        memcpy(image.scanLine(r), pic.rowPtr(quint32(rows.at(r))), size_t(pic.packedLineBytes()));
    CxPicBufAPI::FreePicBuf(pic, true);
    return image;
}

// Pixel bytes, not QImage equality, so that a 16-bit picture that lost its
// low byte cannot pass after a format conversion.
bool samePixels(const QString& path, const QImage& expected)
{
    const QImage actual = QImage(path).convertToFormat(expected.format());
    if (actual.size() != expected.size())
        return false;
    for (int y = 0; y < expected.height(); ++y) {
        if (memcmp(actual.constScanLine(y), expected.constScanLine(y), size_t(expected.width() * expected.depth() / 8)))
            return false;
    }
    return true;
}

QStringList pngFiles(const QString& folder)
{
    return QDir(folder).entryList({"*.png"}, QDir::Files, QDir::Name);
}

QStringList frameNames(int frames)
{
    QStringList names;
    for (int n = 0; n < frames; ++n)
        names << QString::asprintf("frame_%06d.png", n);
    return names;
}

} // namespace

// Nodes that misbehave the ways the runner must report.
class CxTstRefuseNode : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Test Refuse")
    Q_CLASSINFO("UniqueID", "test.Qlar.CxTstRefuseNode")
public:
    Q_INVOKABLE CxTstRefuseNode() = default;
    QString title() const override { return "Refuser"; }
    bool queryOutputImageInfo(const SxPicBufInfo&, SxPicBufInfo&, const CxImageMetadata*, CxImageMetadata*) override
    {
        setErrorMessage("takes no pictures at all");
        return false;
    }
};

class CxTstComplainNode : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Test Complain")
    Q_CLASSINFO("UniqueID", "test.Qlar.CxTstComplainNode")
public:
    Q_INVOKABLE CxTstComplainNode() = default;
    int buffersCountInMemoryPool() const override { return 0; }
    IxChainData* processData(IxChainData* data) override
    {
        if (errorMessage().isEmpty())
            setErrorMessage("cannot handle this, passed on");
        return data;
    }
};

class TestQlarrun : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void listShowsNodes();
    void pluginFolderFromEnvironment();
    void defaultRun();
    void nodeChain_data();
    void nodeChain();
    void savedChainRunsTheSame();
    void errors_data();
    void errors();
    void nodeProblems_data();
    void nodeProblems();
    void paddedAndUnwritablePictures_data();
    void paddedAndUnwritablePictures();
};

void TestQlarrun::initTestCase()
{
    for (const QMetaObject* mo : {&CxTstRefuseNode::staticMetaObject, &CxTstComplainNode::staticMetaObject})
        QVERIFY(CxRTTI::instance()->registerClass(nullptr, *mo, "CxChainable"));
}

void TestQlarrun::listShowsNodes()
{
    const SxRun run = runQlarrun({"--list"});
    QCOMPARE(run.status, 0);
    const QStringList lines = run.out.split('\n', Qt::SkipEmptyParts);
    QVERIFY2(lines.contains(QString("Deinterlace\t") + DeinterlaceId), qPrintable(run.out + run.err));
    for (const QString& line : lines)
        QCOMPARE(line.count('\t'), 1);
}

// Every other run uses the compiled-in folder; here the variable, and the
// option that overrides it.
void TestQlarrun::pluginFolderFromEnvironment()
{
    const QString bad = "/nonexistent/qlar-plugins";
    SxRun run = runQlarrun({"--list"}, QString(), bad);
    QCOMPARE(run.status, 3);
    QVERIFY2(run.err.contains(bad), qPrintable(run.err));
    run = runQlarrun({"--list", "--plugins", QLAR_PLUGIN_DIR}, QString(), bad);
    QCOMPARE(run.status, 0);
    QVERIFY(run.out.contains(DeinterlaceId));
}

void TestQlarrun::defaultRun()
{
    QTemporaryDir dir;
    const SxRun run = runQlarrun({}, dir.path());
    QCOMPARE(run.status, 0);
    QVERIFY2(run.err.isEmpty(), qPrintable(run.err));
    QVERIFY2(run.out.contains("out/default"), qPrintable(run.out));
    const QDir out(dir.filePath("out/default"));
    QCOMPARE(pngFiles(out.path()), frameNames(8));
    for (int n = 0; n < 8; ++n) {
        const QString path = out.filePath(frameNames(8).at(n));
        QCOMPARE(QImage(path).format(), QImage::Format_Grayscale8);
        QVERIFY2(samePixels(path, expectedPicture("bayer8", 640, 480, 0, 1, n, {2})), qPrintable(path));
    }
}

void TestQlarrun::nodeChain_data()
{
    QTest::addColumn<QString>("camera");
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<int>("cfa");   // 0: not given
    QTest::addColumn<int>("seed");  // 0: not given
    QTest::addColumn<QList<int>>("transforms");
    QTest::addColumn<int>("outputHeight");

    QTest::newRow("mono8 odd rows halve") << "mono8" << 64 << 48 << 0 << 0 << QList<int>{0} << 24;
    QTest::newRow("mono8 even rows, odd height") << "mono8" << 33 << 21 << 0 << 0 << QList<int>{1} << 10;
    QTest::newRow("mono16 even first") << "mono16" << 31 << 17 << 0 << 0 << QList<int>{3} << 17;
    QTest::newRow("rgb8 odd first") << "rgb8" << 30 << 20 << 0 << 0 << QList<int>{2} << 20;
    QTest::newRow("rgba8 two nodes") << "rgba8" << 17 << 9 << 0 << 0 << QList<int>{0, 3} << 5;
    QTest::newRow("bayer16 pattern and seed") << "bayer16" << 40 << 30 << 4 << 7 << QList<int>{2} << 30;
    QTest::newRow("no node passes frames on") << "bayer8" << 21 << 11 << 0 << 0 << QList<int>{} << 11;
}

void TestQlarrun::nodeChain()
{
    QFETCH(QString, camera);
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(int, cfa);
    QFETCH(int, seed);
    QFETCH(QList<int>, transforms);
    QFETCH(int, outputHeight);

    QTemporaryDir dir;
    QStringList args{"--camera", camera, "--size", QString("%1x%2").arg(width).arg(height), "--frames", "3",
                     "--out", dir.path()};
    if (cfa)
        args << "--cfa" << QString::number(cfa);
    if (seed)
        args << "--seed" << QString::number(seed);
    for (int t : transforms)
        args << "--node" << QString("Deinterlace:transform=%1").arg(t);

    const SxRun run = runQlarrun(args);
    QCOMPARE(run.status, 0);
    QVERIFY2(run.err.isEmpty(), qPrintable(run.err));
    QVERIFY2(run.out.contains("3 frames in, 3 outputs written"), qPrintable(run.out));
    QCOMPARE(pngFiles(dir.path()), frameNames(3));
    for (int n = 0; n < 3; ++n) {
        const QString path = dir.filePath(frameNames(3).at(n));
        QCOMPARE(QImage(path).height(), outputHeight);
        QVERIFY2(samePixels(path, expectedPicture(camera, width, height, cfa, seed ? seed : 1, n, transforms)),
                 qPrintable(path));
    }
}

void TestQlarrun::savedChainRunsTheSame()
{
    QTemporaryDir dir;
    const QString doc = dir.filePath("chain.xml"), first = dir.filePath("1"), second = dir.filePath("2");
    const QStringList camera{"--camera", "mono8", "--size", "33x21", "--frames", "2"};
    QCOMPARE(runQlarrun(camera + QStringList{"--node", "Deinterlace:transform=3", "--node", "Deinterlace:transform=1",
                                             "--save-chain", doc, "--out", first}).status, 0);
    QFile file(doc);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString xml = QString::fromUtf8(file.readAll());
    QVERIFY2(xml.count(DeinterlaceId) == 2 && xml.contains("transform=\"3\""), qPrintable(xml));

    const SxRun run = runQlarrun(camera + QStringList{"--chain", doc, "--out", second, "--quiet"});
    QCOMPARE(run.status, 0);
    QVERIFY2(run.out.isEmpty() && run.err.isEmpty(), qPrintable(run.out + run.err));
    QCOMPARE(pngFiles(second), frameNames(2));
    for (const QString& name : frameNames(2)) {
        const QImage a(QDir(first).filePath(name));
        QCOMPARE(a.height(), 10);
        QCOMPARE(QImage(QDir(second).filePath(name)), a);
    }
}

void TestQlarrun::errors_data()
{
    QTest::addColumn<QStringList>("args");  // @ stands for a scratch folder
    QTest::addColumn<int>("status");
    QTest::addColumn<QStringList>("culprits");

    QTest::newRow("unknown option") << QStringList{"--frobnicate"} << 1 << QStringList{"frobnicate"};
    QTest::newRow("unknown camera") << QStringList{"--camera", "mono12"} << 1 << QStringList{"mono12"};
    QTest::newRow("setting without value") << QStringList{"--node", "Deinterlace:transform"} << 1
                                           << QStringList{"Deinterlace", "transform"};
    QTest::newRow("setting the node lacks") << QStringList{"--node", "Deinterlace:transfrom=2"} << 1
                                            << QStringList{"Deinterlace", "transfrom"};
    QTest::newRow("unknown node") << QStringList{"--node", "Nosuch Node"} << 2 << QStringList{"Nosuch Node"};
    QTest::newRow("missing chain document") << QStringList{"--chain", "@/missing.xml"} << 2
                                            << QStringList{"missing.xml"};
    QTest::newRow("malformed chain document") << QStringList{"--chain", "@/broken.xml"} << 2
                                              << QStringList{"broken.xml"};
    QTest::newRow("document names an unknown node") << QStringList{"--chain", "@/unknown.xml"} << 2
                                                    << QStringList{"unknown.xml"};
    QTest::newRow("missing plug-in folder") << QStringList{"--plugins", "@/noplugins"} << 3
                                            << QStringList{"noplugins"};
    QTest::newRow("output folder under a file") << QStringList{"--out", "@/afile/out"} << 4
                                                << QStringList{"afile/out"};
    QTest::newRow("chain document under a file")
        << QStringList{"--node", "Deinterlace", "--save-chain", "@/afile/chain.xml"} << 4 << QStringList{"chain.xml"};
}

void TestQlarrun::errors()
{
    QFETCH(QStringList, args);
    QFETCH(int, status);
    QFETCH(QStringList, culprits);

    QTemporaryDir dir;
    const auto writeFile = [&](const char* name, const QByteArray& content) {
        QFile f(dir.filePath(name));
        return f.open(QIODevice::WriteOnly) && f.write(content) == content.size();
    };
    QVERIFY(writeFile("broken.xml", "<?xml version=\"1.0\"?>\n<QlarChain version=\"1\">\n<Chainable uniqueId="));
    QVERIFY(writeFile("unknown.xml", "<QlarChain version=\"1\"><Chainable uniqueId=\"x.NoSuchCnbl\"/></QlarChain>"));
    QVERIFY(writeFile("afile", "not a folder"));
    args.replaceInStrings("@", dir.path());
    // Short, so that a run that wrongly goes ahead ends quickly.
    args << "--frames" << "1";
    if (!args.contains("--size"))
        args << "--size" << "16x8";

    const SxRun run = runQlarrun(args);
    QCOMPARE(run.status, status);
    QVERIFY2(run.err.split('\n', Qt::SkipEmptyParts).size() == 1, qPrintable(run.err));
    for (const QString& culprit : culprits)
        QVERIFY2(run.err.contains(culprit), qPrintable(run.err));
}

void TestQlarrun::nodeProblems_data()
{
    QTest::addColumn<QString>("node");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("message");  // exactly once on stderr
    QTest::addColumn<QString>("summary");

    QTest::newRow("refused format") << "Test Refuse" << 3 << "takes no pictures at all" << QString();
    QTest::newRow("message while running") << "Test Complain" << 0 << "cannot handle this, passed on"
                                           << "4 frames in, 4 outputs written";
}

void TestQlarrun::nodeProblems()
{
    QFETCH(QString, node);
    QFETCH(int, status);
    QFETCH(QString, message);
    QFETCH(QString, summary);

    QTemporaryDir dir;
    SxRunOptions options;
    QString text;
    QCOMPARE(CxCommandLine::parse({"qlarrun", "--plugins", QLAR_PLUGIN_DIR, "--camera", "mono8", "--size", "12x6",
                                   "--frames", "4", "--out", dir.path(), "--node", node},
                                  options, &text), ExitOk);
    QString out, err;
    QTextStream outStream(&out), errStream(&err);
    QCOMPARE(int(CxRunner(outStream, errStream).exec(options)), status);
    QVERIFY2(err.count(message) == 1, qPrintable(err));
    QVERIFY2(out.contains(summary), qPrintable(out));
    QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), 0);
}

void TestQlarrun::paddedAndUnwritablePictures_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("padding");
    QTest::addColumn<int>("storage");
    QTest::addColumn<bool>("writable");

    QTest::newRow("u8 x1 padded") << int(IDT_UINT8) << 1 << 11 << int(DSF_PACKED) << true;
    QTest::newRow("u16 x1 padded") << int(IDT_UINT16) << 1 << 6 << int(DSF_PACKED) << true;
    QTest::newRow("u8 x3 odd pitch") << int(IDT_UINT8) << 3 << 3 << int(DSF_PACKED) << true;
    QTest::newRow("u8 x4 padded") << int(IDT_UINT8) << 4 << 4 << int(DSF_PACKED) << true;
    QTest::newRow("s16 x1") << int(IDT_INT16) << 1 << 0 << int(DSF_PACKED) << false;
    QTest::newRow("f32 x1") << int(IDT_FLOAT) << 1 << 0 << int(DSF_PACKED) << false;
    QTest::newRow("u8 x2") << int(IDT_UINT8) << 2 << 0 << int(DSF_PACKED) << false;
    QTest::newRow("u8 x3 planar") << int(IDT_UINT8) << 3 << 0 << int(DSF_PLANAR) << false;
}

void TestQlarrun::paddedAndUnwritablePictures()
{
    QFETCH(int, type);
    QFETCH(int, channels);
    QFETCH(int, padding);
    QFETCH(int, storage);
    QFETCH(bool, writable);

    // Odd width; samples tell their position (16-bit ones in both bytes);
    // padding holds a value no sample has.
    const int w = 5, h = 3, rowSamples = w * channels, bytes = int(bytesPerSampleOf(ExImageDataType(type)));
    SxPicBuf pic;
    QVERIFY(CxPicBufAPI::AllocPicBufFromHeap(pic, w, h, quint32(channels), ExImageDataType(type), 0,
                                             quint32(rowSamples * bytes + padding), 0, ExDataStorageFormat(storage),
                                             CFA_NONE, channels > 2, false, 0));
    memset(pic.data, 0xA5, size_t(pic.dataSize()));
    const auto sample = [&](int i, int y) { return quint16((i * 1031 + y * 257 + 1) & (bytes == 2 ? 0xffff : 0xff)); };
    for (int y = 0; y < h; ++y) {
        for (int i = 0; i < rowSamples; ++i) {
            if (bytes == 2)
                pic.row<quint16>(y)[i] = sample(i, y);
            else
                pic.rowPtr(y)[i] = uchar(sample(i, y));
        }
    }

    QString message;
    const QImage image = CxPngWriter::toImage(pic, &message);
    QCOMPARE(!image.isNull(), writable);
    for (int y = 0; y < image.height(); ++y) {
        for (int i = 0; i < rowSamples; ++i) {
            const quint16 actual = bytes == 2 ? reinterpret_cast<const quint16*>(image.constScanLine(y))[i]
                                              : image.constScanLine(y)[i];
            QCOMPARE(actual, sample(i, y));
        }
    }
    if (!writable) {
        QTemporaryDir dir;
        CxPngWriter writer;
        QVERIFY(writer.open(dir.filePath("a/b"), &message));
        QCOMPARE(writer.write(pic, &message), CxPngWriter::Skipped);
        QVERIFY2(message.contains(pic.describe()), qPrintable(message));
        QCOMPARE(writer.write(pic, &message), CxPngWriter::Skipped);
        QVERIFY2(message.isEmpty(), "the same kind of picture is reported once");
    }
    CxPicBufAPI::FreePicBuf(pic, true);
}

QTEST_GUILESS_MAIN(TestQlarrun)
#include "tst_qlarrun.moc"
