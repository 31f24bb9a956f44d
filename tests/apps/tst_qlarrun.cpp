// The runner as users meet it (the built binary, its files, messages and exit
// statuses) plus, in process, what the plug-in's nodes never provoke: node
// messages while running and spectra of known values. Output pictures are
// checked against camera frames rendered here, or against the same chain run
// in process.
#include "AppTestSupport.h"

#include "ChainBuilder.h"
#include "CommandLine.h"
#include "OutputWriter.h"
#include "Runner.h"

#include <CxChain.h>
#include <CxChainDocument.h>
#include <CxFFTImageData.h>
#include <CxImageData.h>
#include <CxImageProvider.h>
#include <CxPluginManager.h>
#include <CxRTTI.h>
#include <CxSyntheticCamera.h>

#include <QtCore/QStandardPaths>
#include <QtCore/QTemporaryDir>
#include <QtCore/QTextStream>
#include <QtGui/QImage>
#include <QtTest/QtTest>

#include <tiffio.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace {

const char* const DeinterlaceId = "de.korvel.Vistrel.CxDeinterlaceCnbl";
const char* const ExtractId = "de.korvel.Vistrel.CxExtractChannelCnbl";

// The camera a --camera kind stands for, written out here rather than taken
// from the program.
CxSyntheticCamera::SxConfig cameraFor(const QString& kind, quint32 w, quint32 h, int cfa, quint32 bits, quint32 seed)
{
    CxSyntheticCamera::SxConfig c;
    c.width = w, c.height = h, c.seed = seed;
    c.dataType = kind.endsWith("16") ? IDT_UINT16 : IDT_UINT8;
    c.bitsPerSample = bits ? bits : bytesPerSampleOf(c.dataType) * 8;
    c.layout = kind.startsWith("mono")     ? CxSyntheticCamera::LayoutMono
               : kind.startsWith("bayer")  ? CxSyntheticCamera::LayoutBayer
               : kind.startsWith("rgba")   ? CxSyntheticCamera::LayoutRgba
               : kind.startsWith("rgbnir") ? CxSyntheticCamera::LayoutRgbNir
               : kind.startsWith("rgb")    ? CxSyntheticCamera::LayoutRgb
                                           : CxSyntheticCamera::LayoutHsi;
    c.colorFilterArray = kind.startsWith("bayer") ? ExColorFilterArray(cfa > 0 ? cfa : 1) : CFA_NONE;
    return c;
}

quint32 channelsOf(CxSyntheticCamera::ExLayout layout)
{
    return layout == CxSyntheticCamera::LayoutRgb ? 3 : layout == CxSyntheticCamera::LayoutRgba ? 4 : 1;
}

kit::CxPicture renderCamera(const CxSyntheticCamera::SxConfig& c, qint64 n)
{
    const quint32 ch = channelsOf(c.layout);
    kit::CxPicture p(kit::format(c.width, c.height, ch, c.dataType, 0, CFA_NONE, DSF_PACKED, ch > 1, c.bitsPerSample));
    CxSyntheticCamera::renderFrame(c, n, p.pic());
    return p;
}

// The outputs of the same chain run here, in process, over the same camera:
// the program must write them sample for sample. The nodes' own rules are
// their tests' business.
bool runInProcess(const CxSyntheticCamera::SxConfig& camera, const QStringList& nodes, int frames,
                  QList<QByteArray>& outputs)
{
    CxChain chain;
    chain.setRunMode(CxChain::RunSynchronous);
    CxSyntheticCamera::SxConfig limited = camera;
    limited.frameLimit = frames;
    chain.setSource(new CxSyntheticCamera(limited));
    for (const QString& text : nodes) {
        SxNodeRequest request;
        QString error;
        CxChainable* node = nullptr;
        if (!CxChainBuilder::parseNodeRequest(text, request, &error) || !(node = CxChainBuilder::createNode(request.name, &error)))
            return false;
        chain.appendNode(node);
        if (CxChainBuilder::applySettings(node, request, &error) != ExitOk)
            return false;
    }
    if (!chain.start())
        return false;
    for (int n = 0; n < frames; ++n) {
        std::unique_ptr<IxChainData> out(chain.step());
        auto* image = qobject_cast<CxImageData*>(out.get());
        if (!image)
            return false;
        outputs.append(packedBytes(*image->picBuf()));
    }
    chain.stop();
    return true;
}

// In process, so that the runner meets the test nodes registered here.
int runInProcess(const QStringList& args, QString& out, QString& err)
{
    SxRunOptions options;
    QString text;
    if (CxCommandLine::parse(QStringList{"qlarrun", "--plugins", QLAR_PLUGIN_DIR, "--camera", "mono8"} + args, options,
                             &text) != ExitOk)
        return -1;
    QTextStream outStream(&out), errStream(&err);
    return int(CxRunner(outStream, errStream).exec(options));
}

struct SxChainCase
{
    QString camera;
    int width, height, cfa, bits, seed;  // 0: option not given
    QList<int> transforms;  // Deinterlace nodes
    int extract;            // Extract Channel's channel, -1: no such node
};

struct SxLayoutCase
{
    CxSyntheticCamera::ExLayout layout;
    ExImageDataType type;
    int bits, width, height, channels, cfa;
    int zones;  // of the sensor description
};

QString frameFile(const QString& folder, int n, const char* suffix)
{
    return QDir(folder).filePath(QString("frame_%1.%2").arg(n, 6, 10, QChar('0')).arg(suffix));
}

// A pixel of a written TIFF as another program sees it: decoded by libtiff's
// own RGBA reader, none of ours.
QRgb tiffPixel(const QString& path, int x, int y)
{
    TIFF* tif = TIFFOpen(QFile::encodeName(path).constData(), "r");
    if (!tif)
        return 0;
    uint32_t w = 0, h = 0;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
    std::vector<uint32_t> raster(size_t(w) * h);
    QRgb pixel = 0;
    if (TIFFReadRGBAImageOriented(tif, w, h, raster.data(), ORIENTATION_TOPLEFT, 0) && x < int(w) && y < int(h)) {
        const uint32_t p = raster[size_t(y) * w + size_t(x)];
        pixel = qRgb(int(TIFFGetR(p)), int(TIFFGetG(p)), int(TIFFGetB(p)));
    }
    TIFFClose(tif);
    return pixel;
}

} // namespace

Q_DECLARE_METATYPE(SxChainCase)
Q_DECLARE_METATYPE(SxLayoutCase)

// A node that complains while it works, and one that hands on spectra.
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

// re = x - 2y, im = 3 at (1, 0) and 0 elsewhere, so magnitudes are known.
// Like FFT 2D the parts are announced as 32-bit integers and hold floats.
class CxTstSpectrumNode : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Test Spectrum")
    Q_CLASSINFO("UniqueID", "test.Qlar.CxTstSpectrumNode")
public:
    Q_INVOKABLE CxTstSpectrumNode() = default;
    int buffersCountInMemoryPool() const override { return 0; }
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out, const CxImageMetadata* inMeta,
                              CxImageMetadata* outMeta) override
    {
        out = in;
        out.channels = 1, out.dataType = IDT_INT32, out.bitsPerSample = 32, out.linePitch = 0;
        out.colorFilterArray = CFA_NONE;
        if (outMeta && inMeta)
            *outMeta = *inMeta;
        return true;
    }
    IxChainData* processData(IxChainData* data) override
    {
        CxImageData* image = qobject_cast<CxImageData*>(data);
        if (!image)
            return nullptr;
        const SxPicBuf& in = *image->picBuf();
        SxPicBuf re, im;
        for (SxPicBuf* part : {&re, &im})
            CxPicBufAPI::AllocPicBufFromHeap(*part, in.width, in.height, 1, IDT_INT32, 32, 0, 0, DSF_PACKED, CFA_NONE,
                                             false, true, 0);
        for (quint32 y = 0; y < in.height; ++y)
            for (quint32 x = 0; x < in.width; ++x)
                re.row<float>(y)[x] = float(x) - 2.f * float(y);
        im.row<float>(0)[1] = 3.f;
        re.frameNumber = im.frameNumber = in.frameNumber;
        auto* spectrum = new CxFFTImageData;
        spectrum->setPicBufReIm(re, im, nullptr);
        delete data;
        return spectrum;
    }
};

class TestQlarrun : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        for (const QMetaObject* mo : {&CxTstComplainNode::staticMetaObject,
                                      &CxTstSpectrumNode::staticMetaObject})
            QVERIFY(CxRTTI::instance()->registerClass(nullptr, *mo, "CxChainable"));
        QVERIFY(CxPluginManager::instance()->loadFolder(QLAR_PLUGIN_DIR) > 0);
    }

    // Every node once, by both names; the settings element pastes into a chain
    // document.
    void listAndDescribe()
    {
        SxRun run = runQlarrun({"--list"});
        QCOMPARE(run.status, 0);
        const QStringList lines = run.out.split('\n', Qt::SkipEmptyParts);
        QVERIFY(lines.filter(QString("Extract Channel\t%1\t").arg(ExtractId)).size() == 1);
        for (const QString& line : lines)
            QCOMPARE(line.count('\t'), 2);
        for (const char* name : {"Extract Channel", ExtractId}) {
            run = runQlarrun({"--describe", name});
            QCOMPARE(run.status, 0);
            const QString element = run.out.split('\n').filter("<Chainable").value(0);
            QString error;
            const QList<CxChainable*> nodes =
                CxChainDocument::loadFromString("<QlarChain version=\"1\">" + element + "</QlarChain>", &error);
            QVERIFY2(nodes.size() == 1 && error.isEmpty(), qPrintable(element + error));
            QCOMPARE(CxRTTI::classInfo(*nodes.first()->metaObject(), "UniqueID"), QString(ExtractId));
            qDeleteAll(nodes);
        }
    }

    // Every other run uses the compiled-in folder; here the variable, and the
    // option that overrides it.
    void pluginFolderFromEnvironment()
    {
        const QString bad = "/nonexistent/qlar-plugins";
        SxRun run = runQlarrun({"--list"}, QString(), bad);
        QCOMPARE(run.status, 3);
        QVERIFY2(run.err.contains(bad), qPrintable(run.err));
        run = runQlarrun({"--list", "--plugins", QLAR_PLUGIN_DIR}, QString(), bad);
        QCOMPARE(run.status, 0);
        QVERIFY(run.out.contains(DeinterlaceId));
    }

    void defaultRun()
    {
        QTemporaryDir dir;
        const SxRun run = runQlarrun({}, dir.path());
        QCOMPARE(run.status, 0);
        QVERIFY2(run.err.isEmpty(), qPrintable(run.err));
        QVERIFY2(run.out.contains("out/default/green"), qPrintable(run.out));
        const QString out = dir.filePath("out/default/green");
        QCOMPARE(QDir(out).entryList(QDir::Files).size(), 16);
        QList<QByteArray> green;
        QVERIFY(runInProcess(cameraFor("bayer8", 640, 480, 1, 8, 1), {"Extract Channel:channelIdx=1"}, 8, green));
        for (int n = 0; n < 8; ++n) {
            kit::CxPicture tif, png;
            QVERIFY(readPicture(frameFile(out, n, "tif"), tif));
            QVERIFY(readPicture(frameFile(out, n, "png"), png));
            QCOMPARE(packedBytes(tif.pic()), green.at(n));
            QCOMPARE(packedBytes(png.pic()), green.at(n));
        }

        // The spectrum plot: yellow graph on the palette's ground, colours in
        // their places in the PNG.
        const QString spectrum = dir.filePath("out/default/spectrum");
        QCOMPARE(QDir(spectrum).entryList(QDir::Files).size(), 16);
        const QImage plot(frameFile(spectrum, 7, "png"));
        QCOMPARE(plot.size(), QSize(2048, 1536));
        int graph = 0, peakX = -1;
        for (int y = 0; y < plot.height(); y += 2)
            for (int x = 0; x < plot.width(); x += 2) {
                const bool yellow = qRed(plot.pixel(x, y)) > 240 && qGreen(plot.pixel(x, y)) > 240 && qBlue(plot.pixel(x, y)) < 200;
                graph += yellow;
                if (yellow && peakX < 0)
                    peakX = x;
            }
        QVERIFY2(graph > 50, qPrintable(QString::number(graph)));
        // The highest point is the bars' period, 16 green cells (0.0625 periods
        // per pixel), an eighth of the way along the frequency axis.
        QVERIFY2(peakX > 2048 * 0.19 && peakX < 2048 * 0.28, qPrintable(QString::number(peakX)));

        // Standard deviation of every 4 frames, LUT-mapped to colour: frames 3 and 7.
        const QString noise = dir.filePath("out/default/noise");
        QCOMPARE(QDir(noise).entryList(QDir::Files).size(), 4);
        QCOMPARE(QImage(frameFile(noise, 7, "png")).size(), QSize(640, 480));
    }

    void cameraChains_data()
    {
        QTest::addColumn<SxChainCase>("c");

        QTest::newRow("mono8 even rows, odd height") << SxChainCase{"mono8", 33, 21, 0, 0, 0, {0}, -1};
        QTest::newRow("mono16 11 bits, odd rows first") << SxChainCase{"mono16", 31, 17, 0, 11, 0, {3}, -1};
        QTest::newRow("rgba8 two nodes") << SxChainCase{"rgba8", 17, 9, 0, 0, 0, {1, 2}, -1};
        QTest::newRow("no node passes frames on") << SxChainCase{"bayer8", 21, 11, 0, 0, 0, {}, -1};
        QTest::newRow("rgb16 blue plane") << SxChainCase{"rgb16", 15, 7, 0, 0, 0, {}, 2};
        QTest::newRow("bayer8 pattern 5 cell 1") << SxChainCase{"bayer8", 23, 15, 5, 0, 5, {}, 1};
        QTest::newRow("bayer16 12 bits cell 3 after deinterlace") << SxChainCase{"bayer16", 40, 30, 4, 12, 7, {2}, 3};
        QTest::newRow("rgbnir16 10 bits red") << SxChainCase{"rgbnir16", 20, 14, 0, 10, 3, {}, 2};
        QTest::newRow("hsi16 12 bits infrared band 20") << SxChainCase{"hsi16", 64, 48, 0, 12, 0, {}, 20};
    }

    // The camera options reach the camera and the chain's outputs reach the
    // files exactly.
    void cameraChains()
    {
        QFETCH(SxChainCase, c);

        QTemporaryDir dir;
        QStringList args{"--camera", c.camera, "--size", QString("%1x%2").arg(c.width).arg(c.height), "--frames", "3",
                         "--out", dir.path()};
        if (c.cfa)
            args << "--cfa" << QString::number(c.cfa);
        if (c.bits)
            args << "--bits" << QString::number(c.bits);
        if (c.seed)
            args << "--seed" << QString::number(c.seed);
        QStringList nodes;
        for (int t : c.transforms)
            nodes << QString("Deinterlace:transform=%1").arg(t);
        if (c.extract >= 0)
            nodes << QString("Extract Channel:channelIdx=%1").arg(c.extract);
        for (const QString& node : nodes)
            args << "--node" << node;

        const SxRun run = runQlarrun(args);
        QCOMPARE(run.status, 0);
        QVERIFY2(run.err.isEmpty(), qPrintable(run.err));
        QVERIFY2(run.out.contains("3 frames in, 3 outputs written"), qPrintable(run.out));

        const CxSyntheticCamera::SxConfig config = cameraFor(c.camera, quint32(c.width), quint32(c.height), c.cfa,
                                                             quint32(c.bits), quint32(c.seed ? c.seed : 1));
        QList<QByteArray> expected;
        QVERIFY(runInProcess(config, nodes, 3, expected));
        for (int n = 0; n < 3; ++n) {
            kit::CxPicture out;
            QString error;
            QVERIFY2(readPicture(frameFile(dir.path(), n, "tif"), out, nullptr, &error), qPrintable(error));
            QCOMPARE(out.pic().bitsPerSample, config.bitsPerSample);
            QCOMPARE(packedBytes(out.pic()), expected.at(n));
        }
    }

    void cameraLayouts_data()
    {
        QTest::addColumn<SxLayoutCase>("c");

        using C = CxSyntheticCamera;
        QTest::newRow("mono 8") << SxLayoutCase{C::LayoutMono, IDT_UINT8, 8, 9, 5, 1, 0, 0};
        QTest::newRow("rgb 16 of 10 bits") << SxLayoutCase{C::LayoutRgb, IDT_UINT16, 10, 9, 5, 3, 0, 0};
        QTest::newRow("rgba 16") << SxLayoutCase{C::LayoutRgba, IDT_UINT16, 16, 9, 5, 4, 0, 0};
        QTest::newRow("bayer 8 of 5 bits") << SxLayoutCase{C::LayoutBayer, IDT_UINT8, 5, 9, 5, 1, 1, 0};
        QTest::newRow("rgb-nir 16 of 12 bits") << SxLayoutCase{C::LayoutRgbNir, IDT_UINT16, 12, 9, 5, 1, 7, 1};
        QTest::newRow("hsi 8, two zones") << SxLayoutCase{C::LayoutHsi, IDT_UINT8, 8, 64, 48, 1, 7, 2};
        QTest::newRow("hsi 16, smallest with two zones") << SxLayoutCase{C::LayoutHsi, IDT_UINT16, 14, 8, 4, 1, 7, 2};
        QTest::newRow("hsi 16, too small for two zones") << SxLayoutCase{C::LayoutHsi, IDT_UINT16, 16, 7, 4, 1, 7, 1};
    }

    void cameraLayouts()
    {
        QFETCH(SxLayoutCase, c);

        CxSyntheticCamera::SxConfig config;
        config.layout = c.layout, config.dataType = c.type, config.bitsPerSample = quint32(c.bits);
        config.width = quint32(c.width), config.height = quint32(c.height);
        CxSyntheticCamera camera(config);
        SxPicBufInfo format;
        CxImageMetadata meta;
        QVERIFY(camera.sourceFormat(format, &meta));
        QCOMPARE(int(format.channels), c.channels);
        QCOMPARE(int(format.colorFilterArray), c.cfa);
        QCOMPARE(int(meta.colorFilterArray()), c.cfa);
        QCOMPARE(int(format.bitsPerSample), c.bits);
        QCOMPARE(format.isColor, c.channels > 1);

        const CxHsiCameraParams& hsi = meta.hsiCameraParams();
        QCOMPARE(hsi.filterZoneCount(), c.zones);
        QCOMPARE(hsi, CxSyntheticCamera::mosaicDescription(camera.config()));
        QRect covered;
        for (const CxHsiCameraParams::CxFilterZone& z : hsi.filterZones()) {
            QVERIFY(hsi.isValid());
            const QRect r = z.sensorRect(c.width, c.height);
            QVERIFY(QRect(0, 0, c.width, c.height).contains(r));
            QVERIFY2(!covered.intersects(r), "zones overlap");
            if (!z.coversWholeSensor()) {
                QCOMPARE(r.width() % z.hyperpixelWidth(), 0);
                QCOMPARE(r.height() % z.hyperpixelHeight(), 0);
            }
            covered |= r;
        }
        if (c.layout == CxSyntheticCamera::LayoutRgbNir) {
            // The described layout is the one RGB-NIR nodes assume without one.
            QVERIFY(hsi.isRgbNirCamera());
            const CxHsiCameraParams::CxFilterZone z = hsi.filterZones().first();
            QCOMPARE(QList<int>({z.bandIndexByName("NIR"), z.bandIndexByName("B"), z.bandIndexByName("R"),
                                 z.bandIndexByName("G")}),
                     QList<int>({0, 1, 2, 3}));
        }

        // Within the significant bits, using a good part of them, and moving.
        const kit::CxPicture first = renderCamera(camera.config(), 0), next = renderCamera(camera.config(), 1);
        QVERIFY(packedBytes(first.pic()) != packedBytes(next.pic()));
        quint32 top = 0;
        for (quint32 y = 0; y < first.pic().height; ++y)
            for (quint32 i = 0; i < first.pic().width * first.pic().channels; ++i)
                top = std::max<quint32>(top, c.type == IDT_UINT16 ? first.pic().row<quint16>(y)[i] : first.pic().rowPtr(y)[i]);
        QVERIFY2(top <= (1u << c.bits) - 1 && top > (1u << c.bits) / 4, qPrintable(QString::number(top)));
    }

    // Plain raw files say nothing of their sensor; the saved chain remembers
    // the filter array and significant bits the first run was told.
    void savedChainReplaysOnPlainFiles()
    {
        QTemporaryDir dir;
        const QString doc = dir.filePath("chain.xml"), first = dir.filePath("1"), second = dir.filePath("2");
        for (int n = 0; n < 2; ++n) {
            QByteArray bytes;
            for (int i = 0; i < 10 * 6; ++i)
                bytes.append(char((i * 37 + n) & 0xff)).append(char(i % 16));
            QVERIFY(writeFile(dir.filePath(QString("raw_%1.bin").arg(n)), bytes));
        }
        const QStringList raw{dir.filePath("raw_*.bin"), "--raw", "10x6", "--raw-type", "u16"};
        QCOMPARE(runQlarrun(raw + QStringList{"--cfa", "1", "--bits", "12", "--node", "Deinterlace:transform=3", "--node",
                                              "Extract Channel:channelIdx=2", "--save-chain", doc, "--out", first}).status,
                 0);
        // The same files from the document alone (the mosaic halves the frames,
        // the bits are in every file); quiet but for the summary lines asked for.
        const SxRun run = runQlarrun(raw + QStringList{"--chain", doc, "--out", second, "--quiet", "--summary"});
        QCOMPARE(run.status, 0);
        QVERIFY2(run.err.isEmpty(), qPrintable(run.err));
        const QStringList lines = run.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        QVERIFY2(lines.at(1).startsWith("frame 1: 5x3 u16 x1 min "), qPrintable(run.out));
        for (int n = 0; n < 2; ++n) {
            const QByteArray a = fileBytes(frameFile(first, n, "tif"));
            QVERIFY(!a.isEmpty());
            QCOMPARE(fileBytes(frameFile(second, n, "tif")), a);
        }
    }

    // Colour outputs and colour inputs passed through, read back by programs
    // other than ours, with known colours at known places.
    void colourFiles_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QList<QPoint>>("at");
        QTest::addColumn<QList<QRgb>>("want");  // exact, or for the ramp the dominant component's colour

        QTest::newRow("jet ramp: dark blue to dark red")
            << "ramp.png" << QStringList{"--node", "LUT Mapping:AutoMinMax=0:SrcMin=0:SrcMax=255:PseudoColor=1:MapToRGB=1"}
            << QList<QPoint>{{0, 0}, {255, 0}} << QList<QRgb>{qRgb(0, 0, 1), qRgb(1, 0, 0)};
        QTest::newRow("RGB file passed through")
            << "rgb.png" << QStringList{"--node", "Deinterlace:transform=2"} << QList<QPoint>{{0, 0}, {1, 0}, {2, 1}}
            << QList<QRgb>{qRgb(250, 10, 0), qRgb(0, 240, 20), qRgb(5, 0, 230)};
    }

    void colourFiles()
    {
        QFETCH(QString, input);
        QFETCH(QStringList, args);
        QFETCH(QList<QPoint>, at);
        QFETCH(QList<QRgb>, want);

        QTemporaryDir dir;
        const QString path = dir.filePath(input);
        if (input == "ramp.png") {
            QImage ramp(256, 1, QImage::Format_Grayscale8);
            for (int x = 0; x < 256; ++x)
                ramp.scanLine(0)[x] = uchar(x);
            QVERIFY(ramp.save(path));
        } else {
            QImage rgb(3, 2, QImage::Format_RGB888);
            for (int y = 0; y < 2; ++y)
                for (int x = 0; x < 3; ++x)
                    rgb.setPixel(x, y, want.at(x));
            QVERIFY(rgb.save(path));
        }
        const SxRun run = runQlarrun(QStringList{path, "--out", dir.filePath("out"), "--png"} + args);
        QCOMPARE(run.status, 0);
        const QString tif = frameFile(dir.filePath("out"), 0, "tif");
        const QImage png(frameFile(dir.filePath("out"), 0, "png"));
        QVERIFY(!png.isNull());
        for (int i = 0; i < at.size(); ++i) {
            const QPoint p = at.at(i);
            for (const QRgb got : {tiffPixel(tif, p.x(), p.y()), png.pixel(p)}) {
                const QString seen = QString("(%1, %2): %3 %4 %5").arg(p.x()).arg(p.y()).arg(qRed(got)).arg(qGreen(got))
                                         .arg(qBlue(got));
                if (input != "ramp.png") {
                    QVERIFY2((got & 0xffffff) == (want.at(i) & 0xffffff), qPrintable(seen));
                    continue;
                }
                const int r = qRed(got), b = qBlue(got);
                QVERIFY2(qRed(want.at(i)) ? r > 96 && b < 32 : b > 96 && r < 32, qPrintable(seen));
            }
        }
    }

    // What nodes did not do is told at the end and, with --strict, fails the run.
    void frameAccounting_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("told");  // on stderr, once
        QTest::addColumn<QString>("account");
        QTest::addColumn<int>("strictStatus");

        QTest::newRow("empty outputs are counted")
            << QStringList{"--camera", "mono8", "--size", "8x1", "--frames", "3", "--node", "Deinterlace:transform=1"}
            << "frame 0: the output is empty (8x0 u8 x1)" << "3 frames in, 0 outputs written to" << 5;
        QTest::newRow("median passes float frames on")
            << QStringList{"@/f*.raw", "--raw", "4x4", "--raw-type", "f32", "--node", "Median Filter"}
            << "node 1 \"Median (3x3)\": passed 2 of 2 frames on unprocessed (" << "2 frames in, 2 outputs written" << 5;
        QTest::newRow("rotate drops signed 32-bit counter-clockwise")
            << QStringList{"@/f*.raw", "--raw", "4x4", "--raw-type", "s32", "--node", "Rotate:rotClockwise=0"}
            << "node 1 \"Rotate\": gave no output for 2 of 2 frames (input 4x4 s32 x1)" << "2 frames in, 0 outputs" << 5;
        QTest::newRow("collecting is no loss")
            << QStringList{"--camera", "mono8", "--size", "8x4", "--frames", "4", "--node", "Image Averaging:averageCount=2"}
            << QString() << "4 frames in, 2 outputs written" << 0;
    }

    void frameAccounting()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, told);
        QFETCH(QString, account);
        QFETCH(int, strictStatus);

        QTemporaryDir dir;
        for (const char* name : {"f0.raw", "f1.raw"})
            QVERIFY(writeFile(dir.filePath(name), QByteArray(4 * 4 * 4, '\x01')));
        args.replaceInStrings("@", dir.path());
        args << "--out" << dir.filePath("out");
        SxRun run = runQlarrun(args);
        QCOMPARE(run.status, 0);
        QVERIFY2(told.isEmpty() ? run.err.isEmpty() : run.err.count(told) == 1, qPrintable(run.err));
        QVERIFY2(run.out.contains(account), qPrintable(run.out));
        run = runQlarrun(args << "--strict");
        QCOMPARE(run.status, strictStatus);
    }

    void progressOnTerminal()
    {
        const QString script = QStandardPaths::findExecutable("script");
        if (script.isEmpty())
            QSKIP("no script(1) to give the program a terminal");
        QProcess process;
        process.start(script, {"-qec", QString("%1/qlarrun --camera mono8 --size 16x8 --frames 40").arg(QLAR_BIN_DIR),
                               "/dev/null"});
        QVERIFY(process.waitForFinished(60000));
        const QString seen = QString::fromUtf8(process.readAllStandardOutput());
        QCOMPARE(process.exitCode(), 0);
        QVERIFY2(seen.contains("\r[##############################] 40/40 frames"), qPrintable(seen));
        QVERIFY2(seen.contains("40 frames in"), qPrintable(seen));
    }

    // A node's message while frames flow is told once; the run goes on. (A
    // refusal at the start is a failure of the run, in tst_qlarrun_files.)
    void nodeMessage()
    {
        QTemporaryDir dir;
        QString out, err;
        QCOMPARE(runInProcess({"--size", "12x6", "--frames", "4", "--out", dir.path(), "--node", "Test Complain"}, out, err), 0);
        QVERIFY2(err.count("cannot handle this, passed on") == 1, qPrintable(err));
        QVERIFY2(out.contains("4 frames in, 4 outputs written"), qPrintable(out));
        QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), 0);
    }

    void spectrumOutput()
    {
        QTemporaryDir dir;
        QString out, err;
        QCOMPARE(runInProcess({"--size", "6x4", "--frames", "2", "--out", dir.path(), "--node", "Test Spectrum",
                               "--summary"}, out, err), 0);
        QVERIFY2(err.isEmpty(), qPrintable(err));
        QVERIFY2(out.contains("frame 1 re: 6x4 f32 x1 min -6 max 5 mean -0.500\n"
                              "frame 1 im: 6x4 f32 x1 min 0 max 3 mean 0.125\n"),
                 qPrintable(out));

        for (int n = 0; n < 2; ++n) {
            const QString base = dir.filePath(QString("frame_%1").arg(n, 6, 10, QChar('0')));
            kit::CxPicture re, im;
            QVERIFY(readPicture(base + "_re.tif", re));
            QVERIFY(readPicture(base + "_im.tif", im));
            QCOMPARE(re.pic().dataType, IDT_FLOAT);
            QCOMPARE(re.pic().row<float>(3)[1], -5.f);
            QCOMPARE(im.pic().row<float>(0)[1], 3.f);
            const QImage view(base + "_logmag.png");
            QCOMPARE(view.size(), QSize(6, 4));
            // |re + i im| is largest at (0, 3): 6; zero at (0, 0) and (2, 1).
            const double top = std::log1p(6.0);
            QCOMPARE(qGray(view.pixel(0, 3)), 255);
            QCOMPARE(qGray(view.pixel(0, 0)), 0);
            QCOMPARE(qGray(view.pixel(2, 1)), 0);
            QCOMPARE(qGray(view.pixel(1, 0)), int(std::lround(std::log1p(std::sqrt(10.0)) / top * 255)));
            QCOMPARE(qGray(view.pixel(5, 0)), int(std::lround(std::log1p(5.0) / top * 255)));
        }
        QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), 0);
    }
};

QTEST_GUILESS_MAIN(TestQlarrun)
#include "tst_qlarrun.moc"
