// Picture files in and out of the command-line host: every sample type through
// our TIFF writer, reader and the binary, files of other writers and of several
// frames, raw frames, input lists, and runs that fail with one line naming why.
#include "AppTestSupport.h"

#include <CxSyntheticCamera.h>
#include <ImageFileReader.h>
#include <TiffIo.h>

#include <QtCore/QBuffer>
#include <QtCore/QElapsedTimer>
#include <QtCore/QDirIterator>
#include <QtCore/QTemporaryDir>
#include <QtGui/QImage>
#include <QtTest/QtTest>

namespace {

const quint32 W = 37, H = 21;  // odd, and not a whole number of 16x16 tiles

// A little-endian TIFF of one 8-bit strip whose directory comes before the
// samples, as some cameras write them; a cut file then keeps its directory.
// stripOffset states another place for the strip (-1: where the samples are).
QByteArray handmadeTiff(quint32 w, quint32 h, const QByteArray& samples, qint64 stripOffset = -1)
{
    QByteArray t("II*\0\x08\0\0\0\x09\0", 10);
    const quint32 entries[][3] = {{256, 4, w}, {257, 4, h}, {258, 3, 8}, {259, 3, 1}, {262, 3, 1},
                                  {273, 4, stripOffset >= 0 ? quint32(stripOffset) : 8 + 2 + 9 * 12 + 4}, {277, 3, 1}, {278, 4, h},
                                  {279, 4, quint32(samples.size())}};
    for (const auto& e : entries) {
        const quint32 fields[] = {e[0] | (e[1] << 16), 1, e[2]};  // tag and type, count, value
        t.append(reinterpret_cast<const char*>(fields), sizeof fields);
    }
    return t + QByteArray(4, '\0') + samples;
}

QByteArray bigEndian16(const QList<quint16>& values)
{
    QByteArray b;
    for (quint16 v : values)
        b.append(char(v >> 8)).append(char(v & 0xff));
    return b;
}

// As ImageJ writes large stacks: one big-endian directory whose description
// says images=N, the frames back to back from its first strip.
bool writeImageJ(const QString& path, QByteArray samples, quint32 w, quint32 h, const char* description)
{
    TIFF* tif = TIFFOpen(QFile::encodeName(path).constData(), "wb");
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, h);
    TIFFSetField(tif, TIFFTAG_IMAGEDESCRIPTION, description);
    const bool ok = TIFFWriteRawStrip(tif, 0, samples.data(), samples.size()) >= 0;
    TIFFClose(tif);
    return ok;
}

// Files hold colour red first, pictures blue first.
QByteArray blueFirst(QByteArray samples, int channels, int sampleBytes)
{
    for (qsizetype i = 0; i + channels * sampleBytes <= samples.size(); i += channels * sampleBytes)
        for (int b = 0; b < sampleBytes; ++b)
            std::swap(samples[i + b], samples[i + 2 * sampleBytes + b]);
    return samples;
}

QByteArray pngBytes(const QImage& image)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

// Samples of a QImage-made picture as they should come back, packed.
QByteArray imageSamples(const QImage& image, int channels, int sampleBytes)
{
    QByteArray bytes;
    for (int y = 0; y < image.height(); ++y)
        bytes.append(reinterpret_cast<const char*>(image.constScanLine(y)), image.width() * channels * sampleBytes);
    return bytes;
}

QByteArray hostOrder16(const QList<quint16>& values)
{
    return QByteArray(reinterpret_cast<const char*>(values.constData()), values.size() * 2);
}

struct SxRoundTrip { int type, channels; bool colour; int padding; bool deflate; int cfa, bits, storage; };  // bits 0: the type's
struct SxRawCase
{
    int type;
    QStringList names, args;  // files written, in this order; after the folder, @ is the scratch folder
    int cameraCfa, bits, cfa;  // cameraCfa -1: no camera description
    QStringList outputs;      // frame files, in the order of names
};

} // namespace

Q_DECLARE_METATYPE(SxRoundTrip)
Q_DECLARE_METATYPE(SxRawCase)

// samples: packed, host byte order
struct SxFileCase { QByteArray file; int type; int channels; int bits; QByteArray samples; };
Q_DECLARE_METATYPE(SxFileCase)

class TestQlarrunFiles : public QObject
{
    Q_OBJECT
private slots:
    void tiffRoundTrip_data()
    {
        QTest::addColumn<SxRoundTrip>("c");

        // One row per sample type; channel counts, padding and compression are
        // spread over them so that each meets the writer at least once.
        const ExImageDataType types[] = {IDT_INT8, IDT_UINT8, IDT_INT16, IDT_UINT16, IDT_INT32, IDT_UINT32, IDT_FLOAT};
        for (int n = 0; n < 7; ++n) {
            const int ch = 1 + n % 4;
            const bool padded = (n % 2) == 0, deflate = (n % 3) == 0;
            QTest::addRow("%s x%d%s%s", qPrintable(dataTypeName(types[n])), ch, padded ? " padded" : "",
                          deflate ? " deflate" : "")
                << SxRoundTrip{int(types[n]), ch, ch >= 3, padded ? 7 : 0, deflate, 0, 0, int(DSF_PACKED)};
        }
        QTest::newRow("u8 x3 numbered channels") << SxRoundTrip{int(IDT_UINT8), 3, false, 0, false, 0, 0, int(DSF_PACKED)};
        QTest::newRow("u16 x1 bayer GRBG 12 bits") << SxRoundTrip{int(IDT_UINT16), 1, false, 2, true, 2, 12, int(DSF_PACKED)};
        QTest::newRow("u8 x1 hyperspectral") << SxRoundTrip{int(IDT_UINT8), 1, false, 0, false, 7, 6, int(DSF_PACKED)};
        QTest::newRow("u16 x1 mosaic not raw") << SxRoundTrip{int(IDT_UINT16), 1, false, 0, false, 4, 0, int(DSF_NOT_RAW)};
    }

    void tiffRoundTrip()
    {
        QFETCH(SxRoundTrip, c);
        const auto [type, channels, colour, padding, deflate, cfa, bits, storage] = c;

        kit::CxPicture src = makePicture(ExImageDataType(type), W, H, quint32(channels), quint32(padding));
        src.pic().isColor = colour;
        src.pic().colorFilterArray = ExColorFilterArray(cfa);
        src.pic().storageFormat = ExDataStorageFormat(storage);
        if (bits)
            src.pic().bitsPerSample = quint32(bits);
        CxImageMetadata meta;
        if (cfa == CFA_HSI_MOSAIC)
            meta.setHsiCameraParams(CxSyntheticCamera::builtInHsiDescription(W, H));

        QTemporaryDir dir;
        const QString path = dir.filePath("p.tif");
        QString error;
        QVERIFY2(TiffIo::write(path, src.pic(), &meta, deflate, &error), qPrintable(error));
        kit::CxPicture back;
        CxImageMetadata backMeta;
        QVERIFY2(TiffIo::read(path, back.pic(), backMeta, &error), qPrintable(error));
        QVERIFY2(kit::samePixels(src.pic(), back.pic(), &error), qPrintable(error));
        QCOMPARE(back.pic().isColor, colour);
        QCOMPARE(back.pic().bitsPerSample, src.pic().bitsPerSample);
        QCOMPARE(int(back.pic().colorFilterArray), cfa);
        QCOMPARE(int(back.pic().storageFormat), storage);
        QCOMPARE(backMeta.hsiCameraParams(), meta.hsiCameraParams());
    }

    void tiffFromOtherWriters_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("channels");
        QTest::addColumn<QString>("layout");   // see SxTiffLayout
        QTest::addColumn<QString>("refusal");  // empty: read exactly

        QTest::newRow("big-endian u16 x1, a strip per row") << int(IDT_UINT16) << 1 << "be rps=1" << "";
        QTest::newRow("big-endian f32 x3") << int(IDT_FLOAT) << 3 << "be" << "";
        QTest::newRow("tiled s32 x3, tiles cut at the edges") << int(IDT_INT32) << 3 << "tile=16" << "";
        QTest::newRow("tiled deflate u16 x4") << int(IDT_UINT16) << 4 << "tile=16 comp=8" << "";
        QTest::newRow("lzw s16 x1, strips of 4 rows") << int(IDT_INT16) << 1 << "comp=5 rps=4" << "";
        QTest::newRow("separate planes of one channel s8") << int(IDT_INT8) << 1 << "sep" << "";
        QTest::newRow("grey with an extra channel u32 x2") << int(IDT_UINT32) << 2 << "" << "";
        QTest::newRow("RGB of five samples, numbered channels") << int(IDT_UINT8) << 5 << "" << "";
        QTest::newRow("separate colour planes") << int(IDT_UINT8) << 3 << "sep" << "separate";
        QTest::newRow("12-bit samples") << int(IDT_UINT16) << 1 << "bits=12" << "12-bit";
        QTest::newRow("CMYK") << int(IDT_UINT8) << 4 << "ph=5" << "photometric";
        QTest::newRow("min-is-white") << int(IDT_UINT8) << 1 << "ph=0" << "photometric";
    }

    void tiffFromOtherWriters()
    {
        QFETCH(int, type);
        QFETCH(int, channels);
        QFETCH(QString, layout);
        QFETCH(QString, refusal);

        kit::CxPicture src = makePicture(ExImageDataType(type), W, H, quint32(channels), 3);
        QTemporaryDir dir;
        const QString path = dir.filePath("other.tif");
        QVERIFY(writeWithLibtiff(path, src.pic(), SxTiffLayout(layout)));
        QCOMPARE(fileBytes(path).startsWith("MM"), layout.contains("be"));

        kit::CxPicture back;
        QString error;
        const bool ok = readPicture(path, back, nullptr, &error);
        if (!refusal.isEmpty()) {
            QVERIFY(!ok);
            QVERIFY2(error.startsWith(path + ": ") && error.contains(refusal), qPrintable(error));
            return;
        }
        QVERIFY2(ok, qPrintable(error));
        const bool colour = channels == 3 || channels == 4;
        QCOMPARE(int(back.pic().dataType), type);
        QCOMPARE(packedBytes(back.pic()), colour ? blueFirst(packedBytes(src.pic()), channels, int(src.pic().bytesPerSample()))
                                               : packedBytes(src.pic()));
        QCOMPARE(back.pic().isColor, colour);
    }

    void pngAndPnm_data()
    {
        QTest::addColumn<SxFileCase>("row");

        // QImage makes the PNGs; its own scan lines are what must come back.
        const auto patterned = [](QImage::Format format) {
            QImage image(5, 3, format);
            for (int y = 0; y < image.height(); ++y) {
                uchar* line = image.scanLine(y);
                for (qsizetype i = 0; i < image.bytesPerLine(); ++i)
                    line[i] = uchar((y * 151 + i * 37) ^ (i * i >> 3));
            }
            return image;
        };
        const struct { const char* name; QImage::Format format; int channels, bits; } formats[] = {
            {"png grey 8", QImage::Format_Grayscale8, 1, 8}, {"png grey 16", QImage::Format_Grayscale16, 1, 16},
            {"png rgb 8", QImage::Format_RGB888, 3, 8}, {"png rgba 8, any alpha", QImage::Format_RGBA8888, 4, 8},
            {"png rgba 16", QImage::Format_RGBA64, 4, 16}};
        for (const auto& f : formats) {
            const QImage image = patterned(f.format);
            QTest::newRow(f.name)
                << SxFileCase{pngBytes(image), int(f.bits == 8 ? IDT_UINT8 : IDT_UINT16), f.channels, f.bits,
                    imageSamples(image, f.channels, f.bits / 8)};
        }
        QImage rgbx16 = patterned(QImage::Format_RGBX64);
        QByteArray rgb16Samples;
        for (int y = 0; y < rgbx16.height(); ++y) {
            quint16* line = reinterpret_cast<quint16*>(rgbx16.scanLine(y));
            for (int x = 0; x < rgbx16.width(); ++x) {
                line[4 * x + 3] = 0xffff;
                rgb16Samples.append(reinterpret_cast<const char*>(line + 4 * x), 6);
            }
        }
        QTest::newRow("png rgb 16") << SxFileCase{pngBytes(rgbx16), int(IDT_UINT16), 3, 16, rgb16Samples};
        QImage palette(2, 2, QImage::Format_Indexed8);
        palette.setColorTable({qRgb(10, 20, 30), qRgb(200, 100, 0)});
        palette.fill(0);
        palette.setPixel(1, 0, 1);
        palette.setPixel(0, 1, 1);
        QTest::newRow("png palette")
            << SxFileCase{pngBytes(palette), int(IDT_UINT8), 3, 8,
                QByteArray("\x0a\x14\x1e\xc8\x64\x00\xc8\x64\x00\x0a\x14\x1e", 12)};

        QTest::newRow("pgm 8-bit with comments")
            << SxFileCase{QByteArray("P5\n# made by hand\n3 2 # width and height\n255\n\x01\x02\x03\xfd\xfe\xff"),
                int(IDT_UINT8), 1, 8, QByteArray("\x01\x02\x03\xfd\xfe\xff", 6)};
        const QList<quint16> twelve{0, 1, 0x0abc, 4095, 2048, 0x0123};
        QTest::newRow("pgm 16-bit big-endian, maxval 4095")
            << SxFileCase{QByteArray("P5 3 2 4095\n") + bigEndian16(twelve), int(IDT_UINT16), 1, 12,
                hostOrder16(twelve)};
        QTest::newRow("ppm 8-bit")
            << SxFileCase{QByteArray("P6\n2 1\n255\n\x01\x02\x03\x04\x05\x06"), int(IDT_UINT8), 3, 8,
                QByteArray("\x01\x02\x03\x04\x05\x06", 6)};
        const QList<quint16> wide{0xffff, 0x8001, 0x0102, 7, 0x7fff, 0xfffe};
        QTest::newRow("ppm 16-bit, maxval 65535")
            << SxFileCase{QByteArray("P6\n2 1\n65535\n") + bigEndian16(wide), int(IDT_UINT16), 3, 16,
                hostOrder16(wide)};
        QTest::newRow("pgm maxval 1000")
            << SxFileCase{QByteArray("P5 1 1 1000\n") + bigEndian16({999}), int(IDT_UINT16), 1, 10, hostOrder16({999})};
    }

    void pngAndPnm()
    {
        QFETCH(SxFileCase, row);
        const auto& [file, type, channels, bits, samples] = row;

        // The name says nothing: the reader goes by the content.
        QTemporaryDir dir;
        const QString path = dir.filePath("picture.dat");
        QVERIFY(writeFile(path, file));
        kit::CxPicture pic;
        QString error;
        QVERIFY2(readPicture(path, pic, nullptr, &error), qPrintable(error));
        QCOMPARE(int(pic.pic().dataType), type);
        QCOMPARE(int(pic.pic().channels), channels);
        QCOMPARE(int(pic.pic().bitsPerSample), bits);
        QCOMPARE(pic.pic().isColor, channels > 1);
        QCOMPARE(packedBytes(pic.pic()), channels > 1 ? blueFirst(samples, channels, bits > 8 ? 2 : 1) : samples);
    }

    // One run over a folder holding every type and channel count, plus a 16-bit
    // RGBA PNG, each of another size, so the chain starts again between them.
    void everyTypeThroughTheBinary()
    {
        QTemporaryDir dir;
        QVERIFY(QDir(dir.path()).mkpath("in"));
        struct SxCase { int number; ExImageDataType type; quint32 channels; };
        QList<SxCase> cases;
        for (ExImageDataType t : {IDT_INT8, IDT_UINT8, IDT_INT16, IDT_UINT16, IDT_INT32, IDT_UINT32, IDT_FLOAT})
            cases.append({int(cases.size()) + 3, t, quint32((cases.size() + 3) % 3 == 2 ? 4 : (cases.size() + 3) % 3 == 1 ? 3 : 1)});
        QString error;
        for (const SxCase& c : cases) {
            const kit::CxPicture p = makePicture(c.type, 5 + quint32(c.number % 3), 3 + quint32(c.number % 2), c.channels, 1,
                                           quint32(c.number));
            QVERIFY2(TiffIo::write(dir.filePath(QString("in/shot_%1.tif").arg(c.number)), p.pic(), nullptr, false, &error),
                     qPrintable(error));
        }
        QImage rgba16(3, 2, QImage::Format_RGBA64);
        rgba16.fill(QColor::fromRgba64(1000, 2000, 3000, 4000));
        QVERIFY(rgba16.save(dir.filePath("in/shot_91.png")));

        const SxRun run = runQlarrun({dir.filePath("in"), "--numbers-from-names", "--out", dir.filePath("out"), "--png",
                                      "--quiet"});
        QCOMPARE(run.status, 0);
        QVERIFY2(run.out.isEmpty(), qPrintable(run.out));
        // One note per kind of picture that has no PNG form, nothing else.
        for (const QString& line : run.errLines())
            QVERIFY2(line.contains("no PNG form"), qPrintable(line));

        for (const SxCase& c : cases) {
            const QString name = QString("shot_%1.tif").arg(c.number);
            kit::CxPicture in, out;
            QVERIFY2(readPicture(dir.filePath("in/" + name), in, nullptr, &error), qPrintable(error));
            const QString written = dir.filePath(QString("out/frame_%1").arg(c.number, 6, 10, QChar('0')));
            QVERIFY2(readPicture(written + ".tif", out, nullptr, &error), qPrintable(error));
            QVERIFY2(kit::samePixels(in.pic(), out.pic(), &error), qPrintable(name + ": " + error));
            const bool pngForm = c.type == IDT_UINT8 || c.type == IDT_UINT16;
            QCOMPARE(QFile::exists(written + ".png"), pngForm);
            if (pngForm) {
                kit::CxPicture png;
                QVERIFY2(readPicture(written + ".png", png, nullptr, &error), qPrintable(error));
                QVERIFY2(kit::samePixels(in.pic(), png.pic(), &error), qPrintable(name + " as PNG: " + error));
            }
        }
        kit::CxPicture rgba;
        QVERIFY(readPicture(dir.filePath("out/frame_000091.tif"), rgba));
        QCOMPARE(rgba.pic().channels, 4u);
        QCOMPARE(rgba.pic().row<quint16>(1)[2 * 4 + 3], quint16(4000));
        // The written files hold red first again, as other programs read them.
        QCOMPARE(QImage(dir.filePath("out/frame_000091.png")).pixelColor(2, 1), rgba16.pixelColor(2, 1));
        TIFF* tif = TIFFOpen(QFile::encodeName(dir.filePath("out/frame_000091.tif")).constData(), "r");
        quint16 first[3 * 4] = {};
        QVERIFY(tif && TIFFReadScanline(tif, first, 0, 0) > 0);
        TIFFClose(tif);
        QCOMPARE(QList<quint16>(first, first + 4), QList<quint16>({1000, 2000, 3000, 4000}));
    }

    void filesOfSeveralFrames_data()
    {
        QTest::addColumn<QStringList>("args");    // files in the scratch folder, options
        QTest::addColumn<QStringList>("frames");  // "number: size type channels" per output

        const QStringList average{"--node", "Image Averaging:averageCount=3"};
        const QStringList stack{"0: 3x2 u16 x1", "1: 3x2 u16 x1", "2: 3x2 u16 x1"};
        QTest::newRow("TIFF pages, the thumbnail left out") << QStringList{"pages.tif"}
                                                             << QStringList{"0: 5x3 u8 x1", "1: 4x2 u16 x3"};
        QTest::newRow("ImageJ stack in one directory") << QStringList{"ij.tif"} << stack;
        QTest::newRow("a recording is live: averaged") << QStringList{"ij.tif"} + average << QStringList{"2: 3x2 u16 x1"};
        QTest::newRow("--static: passed through") << QStringList{"ij.tif", "--static"} + average << stack;
        QTest::newRow("a single picture is static") << QStringList{"one.pgm"} + average << QStringList{"0: 1x1 u8 x1"};
        QTest::newRow("--live: a single picture too") << QStringList{"one.pgm", "--live"} + average << QStringList();
        QTest::newRow("raw recording") << QStringList{"rec.raw", "--raw", "3x2", "--raw-type", "u16"} << stack;
        QTest::newRow("PNM images, numbered from a name with a minus")
            << QStringList{"take_-3.pnm", "--numbers-from-names"} << QStringList{"-3: 2x2 u8 x1", "-2: 1x1 u16 x3"};
        QTest::newRow("--frames counts frames, not files") << QStringList{"pages.tif", "ij.tif", "--frames", "3"}
                                                           << QStringList{"0: 5x3 u8 x1", "1: 4x2 u16 x3", "2: 3x2 u16 x1"};
    }

    void filesOfSeveralFrames()
    {
        QFETCH(QStringList, args);
        QFETCH(QStringList, frames);

        QTemporaryDir dir;
        const kit::CxPicture grey = makePicture(IDT_UINT8, 5, 3, 1), thumb = makePicture(IDT_UINT8, 2, 2, 1),
                       rgb = makePicture(IDT_UINT16, 4, 2, 3);
        QVERIFY(writeWithLibtiff(dir.filePath("pages.tif"), grey.pic(), SxTiffLayout(""))
                && writeWithLibtiff(dir.filePath("pages.tif"), thumb.pic(), SxTiffLayout("append thumb"))
                && writeWithLibtiff(dir.filePath("pages.tif"), rgb.pic(), SxTiffLayout("append")));
        QList<quint16> samples;
        for (quint16 i = 0; i < 18; ++i)
            samples << quint16(0x0102 * i + 0x8000 * (i % 2));
        QVERIFY(writeImageJ(dir.filePath("ij.tif"), bigEndian16(samples), 3, 2, "ImageJ=1.54f\nimages=3\nslices=3\n"));
        QVERIFY(writeFile(dir.filePath("rec.raw"), hostOrder16(samples)));
        QVERIFY(writeFile(dir.filePath("one.pgm"), "P5 1 1 255\n\x07"));
        QVERIFY(writeFile(dir.filePath("take_-3.pnm"),
                          QByteArray("P5 2 2 255\n\1\2\3\4\nP6 1 1 65535\n") + bigEndian16({1, 2, 3}) + "\n\n"));

        for (QString& arg : args)
            arg = QFileInfo::exists(dir.filePath(arg)) ? dir.filePath(arg) : arg;
        const SxRun run = runQlarrun(args + QStringList{"--out", dir.filePath("out"), "--summary", "--quiet"});
        QVERIFY2(run.status == 0, qPrintable(run.err));
        QStringList summary;
        for (const QString& line : run.out.split('\n', Qt::SkipEmptyParts))
            summary << line.section(' ', 1, 4);
        QCOMPARE(summary, frames);
        if (frames.isEmpty())
            return;
        // The last frame exactly, where it is read unchanged: the stack's in host
        // byte order, PPM colour blue first.
        kit::CxPicture last;
        const QString name = QString("out/frame_%1.tif").arg(frames.last().section(':', 0, 0).toInt(), 6, 10, QChar('0'));
        QVERIFY(readPicture(dir.filePath(name), last));
        if (frames.size() == 3 && frames.first() == "0: 3x2 u16 x1" && !args.contains("--node"))
            QCOMPARE(packedBytes(last.pic()), hostOrder16(samples.mid(12)));
        else if (args.first().endsWith(".pnm"))
            QCOMPARE(packedBytes(last.pic()), hostOrder16({3, 2, 1}));
    }

    void frameNumbersFromNames_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<qint64>("number");  // beyond 32 bits: refused

        // A minus sign at the start or after anything but a letter or digit.
        const std::pair<const char*, qint64> rows[] = {
            {"frame_-3", -3}, {"-3", -3}, {"x -3", -3}, {"shot-0001", 1}, {"2024-07", 7}, {"f_-2147483648", -2147483648LL},
            {"f_-2147483649", -2147483649LL}, {"f_99999999999999999999", qint64(1) << 40}};
        for (const auto& [name, number] : rows)
            QTest::newRow(name) << QString(name) << number;
    }

    void frameNumbersFromNames()
    {
        QFETCH(QString, name);
        QFETCH(qint64, number);
        qint32 got = 0;
        QString error;
        const bool ok = CxImageFileReader::frameNumberFromName("/d/" + name + ".tif", got, &error);
        QCOMPARE(ok, number == qint32(number));
        if (ok)
            QCOMPARE(got, number);
    }

    // Names sort as their numbers count, signed ones too.
    void namesSortAsNumbersCount()
    {
        const QStringList sorted{"f_-10", "f_-9", "f_-1", "f_0", "f_2", "f_10", "shot-1", "shot-2"};
        QStringList names{sorted.at(5), sorted.at(1), sorted.at(7), sorted.at(3), sorted.at(0), sorted.at(6),
                          sorted.at(2), sorted.at(4)};
        std::sort(names.begin(), names.end(), CxImageFileReader::nameLess);
        QCOMPARE(names, sorted);
    }

    void rawFrames_data()
    {
        QTest::addColumn<SxRawCase>("c");

        QTest::newRow("u16 bayer GRBG, 12 bits")
            << SxRawCase{IDT_UINT16, {"b.raw", "a.raw", "c.raw"}, {"--raw", "7x5", "--raw-type", "u16", "--bits", "12", "--cfa", "2"},
                         -1, 12, 2, {"frame_000001", "frame_000000", "frame_000002"}};
        QTest::newRow("u8 hyperspectral from a camera description")
            << SxRawCase{IDT_UINT8, {"h.raw"}, {"--raw", "7x5", "--camera-file", "@/camera.xml"}, 7, 6, 7, {"frame_000000"}};
        QTest::newRow("command line over camera description")
            << SxRawCase{IDT_UINT16, {"h.raw"}, {"--raw", "7x5", "--raw-type", "u16", "--camera-file", "@/camera.xml", "--cfa", "3", "--bits", "10"},
                         7, 10, 3, {"frame_000000"}};
    }

    void rawFrames()
    {
        QFETCH(SxRawCase, c);
        auto& [type, names, args, cameraCfa, bits, cfa, outputs] = c;

        QTemporaryDir dir;
        QVERIFY(QDir(dir.path()).mkpath("in"));
        const CxHsiCameraParams hsi = CxSyntheticCamera::builtInHsiDescription(7, 5);
        if (cameraCfa >= 0)
            QVERIFY(writeFile(dir.filePath("camera.xml"), QString("<QlarCamera colorFilterArray=\"%1\" bitsPerSample=\"6\">%2"
                                                                  "</QlarCamera>").arg(cameraCfa).arg(hsi.toXmlString().section("?>", 1)).toUtf8()));
        QList<QByteArray> frames;
        for (int i = 0; i < names.size(); ++i) {
            kit::CxPicture p = makePicture(ExImageDataType(type), 7, 5, 1, 0, quint32(i));
            if (bits < 32)
                maskToBits(p.pic(), quint32(bits));
            frames << packedBytes(p.pic());
            QVERIFY(writeFile(dir.filePath("in/" + names.at(i)), frames.last()));
        }
        args.replaceInStrings("@", dir.path());
        const SxRun run = runQlarrun(QStringList{dir.filePath("in"), "--out", dir.filePath("out"), "--quiet"} + args);
        QCOMPARE(run.status, 0);
        QVERIFY2(run.err.isEmpty(), qPrintable(run.err));
        for (int i = 0; i < outputs.size(); ++i) {
            kit::CxPicture out;
            CxImageMetadata meta;
            QString error;
            QVERIFY2(readPicture(dir.filePath("out/" + outputs.at(i) + ".tif"), out, &meta, &error), qPrintable(error));
            QCOMPARE(packedBytes(out.pic()), frames.at(i));
            QCOMPARE(int(out.pic().bitsPerSample), bits);
            QCOMPARE(int(out.pic().colorFilterArray), cfa);
            QCOMPARE(meta.hsiCameraParams(), cfa == 7 ? hsi : CxHsiCameraParams());
        }
    }

    void inputLists_data()
    {
        QTest::addColumn<QStringList>("inputs");  // relative to the scratch folder
        QTest::addColumn<bool>("raw");
        QTest::addColumn<QStringList>("files");   // expected, relative; empty: an error naming the input
        QTest::addColumn<QString>("culprit");

        QTest::newRow("folder in name order, PNG views of TIFFs left out")
            << QStringList{"d"} << false << QStringList{"d/frame_2.pgm", "d/frame_9.tif", "d/frame_10.tif", "d/frame_11.png"}
            << QString();
        QTest::newRow("folder of raw frames takes every file")
            << QStringList{"d"} << true
            << QStringList{"d/frame_2.pgm", "d/frame_9.png", "d/frame_9.tif", "d/frame_10.tif", "d/frame_11.png",
                           "d/notes.txt"}
            << QString();
        QTest::newRow("pattern") << QStringList{"d/frame_1*"} << false << QStringList{"d/frame_10.tif", "d/frame_11.png"}
                                 << QString();
        QTest::newRow("files keep the order given")
            << QStringList{"d/frame_10.tif", "d/frame_9.tif", "d"} << false
            << QStringList{"d/frame_10.tif", "d/frame_9.tif", "d/frame_2.pgm", "d/frame_9.tif", "d/frame_10.tif",
                           "d/frame_11.png"}
            << QString();
        QTest::newRow("pattern without match") << QStringList{"d", "d/shot_*.tif"} << false << QStringList{}
                                               << QString("d/shot_*.tif");
        QTest::newRow("missing file") << QStringList{"d/frame_3.tif"} << false << QStringList{} << QString("d/frame_3.tif");
        QTest::newRow("folder without pictures") << QStringList{"d/sub"} << false << QStringList{} << QString("d/sub");
    }

    void inputLists()
    {
        QFETCH(QStringList, inputs);
        QFETCH(bool, raw);
        QFETCH(QStringList, files);
        QFETCH(QString, culprit);

        QTemporaryDir dir;
        QVERIFY(QDir(dir.path()).mkpath("d/sub"));
        for (const char* name : {"frame_10.tif", "frame_9.tif", "frame_9.png", "frame_11.png", "frame_2.pgm", "notes.txt",
                                 "sub/notes.txt"})
            QVERIFY(writeFile(dir.filePath(QString("d/") + name), "x"));
        const QString root = dir.path() + "/";
        QStringList absolute;
        for (const QString& input : inputs)
            absolute << root + input;

        QStringList listed;
        QString error;
        const bool ok = CxImageFileReader::listInputs(absolute, raw, listed, &error);
        if (!culprit.isEmpty()) {
            QVERIFY(!ok);
            QVERIFY2(error.startsWith(root + culprit + ": "), qPrintable(error));
            return;
        }
        QVERIFY2(ok, qPrintable(error));
        QCOMPARE(listed.replaceInStrings(root, QString()), files);
    }

    // Every way a run fails, through the binary: one line on stderr naming the
    // file, folder, option or node at fault, and the documented status.
    void failures_data()
    {
        QTest::addColumn<QStringList>("args");  // @ is the scratch folder
        QTest::addColumn<int>("status");
        QTest::addColumn<QStringList>("culprits");

        QTest::newRow("TIFF cut inside its samples") << QStringList{"@/cut-samples.tif"} << 2
                                                     << QStringList{"cut-samples.tif", "truncated"};
        QTest::newRow("TIFF description past the end") << QStringList{"@/cut-description.tif"} << 2
                                                       << QStringList{"cut-description.tif", "ImageDescription"};
        QTest::newRow("TIFF strip in its header") << QStringList{"@/strip-in-header.tif"} << 2
                                                  << QStringList{"strip-in-header.tif", "header"};
        QTest::newRow("PNG cut short") << QStringList{"@/cut.png"} << 2 << QStringList{"cut.png", "truncated"};
        QTest::newRow("PGM cut short") << QStringList{"@/cut.pgm"} << 2 << QStringList{"cut.pgm", "truncated", "12"};
        QTest::newRow("garbage") << QStringList{"@/noise.tif"} << 2 << QStringList{"noise.tif", "not a TIFF"};
        QTest::newRow("empty file") << QStringList{"@/empty.png"} << 2 << QStringList{"empty.png", "empty"};
        QTest::newRow("raw frame of the wrong size")
            << QStringList{"@/small.raw", "--raw", "4x3", "--raw-type", "u16"} << 2
            << QStringList{"small.raw", "10 bytes", "24"};
        QTest::newRow("second file breaks the run") << QStringList{"@/grey.tif", "@/cut.pgm"} << 2 << QStringList{"cut.pgm"};
        QTest::newRow("a page of another kind is named") << QStringList{"@/bad.tif"} << 2
                                                         << QStringList{"bad.tif (page 2 of 2)", "12-bit"};
        QTest::newRow("ImageJ stack longer than its file") << QStringList{"@/ij-short.tif"} << 2
                                                           << QStringList{"ij-short.tif", "1000 images", "ends after"};
        QTest::newRow("second PNM image cut short") << QStringList{"@/cut.pnm"} << 2
                                                    << QStringList{"cut.pnm (image 2)", "truncated"};
        QTest::newRow("missing file") << QStringList{"@/gone.tif"} << 2 << QStringList{"gone.tif"};
        QTest::newRow("malformed camera description") << QStringList{"@/grey.tif", "--camera-file", "@/broken.xml"} << 2
                                                      << QStringList{"broken.xml", "line 3"};
        QTest::newRow("filter array 7 without description") << QStringList{"@/grey.tif", "--cfa", "7"} << 2
                                                            << QStringList{"grey.tif", "filter array 7"};
        QTest::newRow("more bits than the samples have") << QStringList{"@/grey.tif", "--bits", "12"} << 2
                                                         << QStringList{"grey.tif", "12"};
        QTest::newRow("mosaic on a colour picture") << QStringList{"@/colour.tif", "--cfa", "1"} << 2
                                                    << QStringList{"colour.tif", "3 channels"};
        QTest::newRow("no frame number in the name") << QStringList{"@/grey.tif", "--numbers-from-names"} << 2
                                                     << QStringList{"grey.tif", "frame number"};
        QTest::newRow("camera option with files") << QStringList{"@/grey.tif", "--size", "8x8"} << 1 << QStringList{"--size"};

        QTest::newRow("pattern on a mono camera") << QStringList{"--camera", "mono8", "--cfa", "2"} << 1
                                                  << QStringList{"--cfa", "mono8"};
        QTest::newRow("more bits than the camera has") << QStringList{"--camera", "bayer8", "--bits", "10"} << 1
                                                       << QStringList{"10", "bayer8"};
        QTest::newRow("missing camera description") << QStringList{"--camera-file", "@/nocamera.xml"} << 2
                                                    << QStringList{"nocamera.xml"};

        QTest::newRow("setting without value") << QStringList{"--node", "Deinterlace:transform"} << 1
                                               << QStringList{"Deinterlace", "transform"};
        QTest::newRow("setting the node lacks") << QStringList{"--node", "Deinterlace:transfrom=2"} << 1
                                                << QStringList{"Deinterlace", "transfrom"};
        QTest::newRow("value the node does not take") << QStringList{"--node", "Extract Channel:channelIdx=green"} << 1
                                                      << QStringList{"Extract Channel", "channelIdx=green"};
        QTest::newRow("unknown node") << QStringList{"--node", "Nosuch Node"} << 2 << QStringList{"Nosuch Node"};
        QTest::newRow("missing chain document") << QStringList{"--chain", "@/missing.xml"} << 2 << QStringList{"missing.xml"};
        QTest::newRow("first frame refused") << QStringList{"@/float.tif", "--node", "Fast Fourier Transform 2D"} << 3
                                             << QStringList{"float.tif", "FFT 2D"};
        QTest::newRow("chain document nested too deep") << QStringList{"--chain", "@/chain-deep.xml"} << 2
                                                        << QStringList{"chain-deep.xml", "QLAR_XML_MAX_DEPTH"};
        QTest::newRow("document a node refuses") << QStringList{"--chain", "@/chain-median.xml"} << 2
                                                 << QStringList{"chain-median.xml", "line 1", "kernelSize"};
        QTest::newRow("missing plug-in folder") << QStringList{"--plugins", "@/noplugins"} << 3 << QStringList{"noplugins"};
        QTest::newRow("output folder under a file") << QStringList{"--out", "@/afile/out"} << 4 << QStringList{"afile/out"};
        // Writes that fail part way, as on a full disk: "fsize:N" caps every file
        // at N bytes. Nothing is left under the target's name.
        QStringList longChain{"fsize:2000", "--frames", "1", "--save-chain", "@/long.xml"};
        for (int i = 0; i < 30; ++i)
            longChain << "--node" << "Deinterlace";
        QTest::newRow("chain document past the file size limit") << longChain << 4 << QStringList{"long.xml", "File too large"};
        QTest::newRow("TIFF past the file size limit") << QStringList{"fsize:1000", "--frames", "1"} << 4
                                                       << QStringList{"frame_000000.tif", "File too large"};
        QTest::newRow("PNG where a folder stands") << QStringList{"--frames", "1", "--png", "--out", "@/blocked"} << 4
                                                   << QStringList{"frame_000000.png", "Is a directory"};
    }

    void failures()
    {
        QFETCH(QStringList, args);
        QFETCH(int, status);
        QFETCH(QStringList, culprits);

        QTemporaryDir dir;
        const kit::CxPicture grey = makePicture(IDT_UINT8, 9, 7, 1), colour = makePicture(IDT_UINT8, 9, 7, 3),
                       floats = makePicture(IDT_FLOAT, 4, 3, 1);
        QString error;
        QVERIFY(TiffIo::write(dir.filePath("grey.tif"), grey.pic(), nullptr, false, &error)
                && TiffIo::write(dir.filePath("colour.tif"), colour.pic(), nullptr, false, &error)
                && TiffIo::write(dir.filePath("float.tif"), floats.pic(), nullptr, false, &error));
        QVERIFY(writeFile(dir.filePath("cut-samples.tif"), handmadeTiff(8, 4, QByteArray(32, 'x')).chopped(7)));
        QVERIFY(writeFile(dir.filePath("strip-in-header.tif"), handmadeTiff(8, 4, QByteArray(32, 'x'), 0)));
        // Our own TIFF, its ImageDescription (filter array, bits) claiming more
        // bytes than the file holds.
        QByteArray described = fileBytes(dir.filePath("grey.tif"));
        const auto u16 = [&](int at) { return quint32(uchar(described[at])) | quint32(uchar(described[at + 1])) << 8; };
        const quint32 ifd = u16(4) | u16(6) << 16;
        for (quint32 i = 0, n = u16(int(ifd)); i < n; ++i)
            if (u16(int(ifd + 2 + 12 * i)) == 270)
                described[int(ifd + 2 + 12 * i + 6)] = char(0x7f);  // count + 8 MB
        QVERIFY(writeFile(dir.filePath("cut-description.tif"), described));
        QImage image(32, 16, QImage::Format_Grayscale8);
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                image.scanLine(y)[x] = uchar(x * 7 + y * 13);
        const QByteArray png = pngBytes(image);
        QVERIFY(writeFile(dir.filePath("cut.png"), png.left(png.size() - 20)));
        QVERIFY(writeFile(dir.filePath("cut.pgm"), QByteArray("P5 4 3 255\n") + QByteArray(10, 'x')));
        QVERIFY(writeFile(dir.filePath("cut.pnm"), "P5 1 1 255\n\1P5 2 1 255\n\1"));
        QVERIFY(writeWithLibtiff(dir.filePath("bad.tif"), grey.pic(), SxTiffLayout(""))
                && writeWithLibtiff(dir.filePath("bad.tif"), grey.pic(), SxTiffLayout("append bits=12")));
        QVERIFY(writeImageJ(dir.filePath("ij-short.tif"), QByteArray(12, 'x'), 3, 2, "ImageJ=1.54f\nimages=1000\n"));
        QByteArray noise;
        std::minstd_rand rng(7);
        for (int i = 0; i < 3000; ++i)
            noise.append(char(rng()));
        QVERIFY(writeFile(dir.filePath("noise.tif"), noise));
        QVERIFY(writeFile(dir.filePath("empty.png"), QByteArray()));
        QVERIFY(writeFile(dir.filePath("small.raw"), QByteArray(10, 'r')));
        QVERIFY(writeFile(dir.filePath("broken.xml"), "<QlarCamera colorFilterArray=\"7\">\n<HsiCameraParams version=\"1\">\n<"));
        QVERIFY(writeFile(dir.filePath("afile"), "not a folder"));
        QVERIFY(writeFile(dir.filePath("chain-deep.xml"), "<QlarChain version=\"1\">" + QByteArray("<a>").repeated(2000)));
        QVERIFY(writeFile(dir.filePath("chain-median.xml"),
                          "<QlarChain version=\"1\"><Chainable uniqueId=\"de.korvel.Vistrel.CxMedianCnbl\"/></QlarChain>"));
        QVERIFY(QDir(dir.path()).mkpath("blocked/frame_000000.png"));

        const rlim_t fileSizeLimit = args.first().startsWith("fsize:") ? args.takeFirst().mid(6).toULongLong() : 0;
        args.replaceInStrings("@", dir.path());
        if (!args.contains("--out"))
            args << "--out" << dir.filePath("out");
        const SxRun run = runQlarrun(args, QString(), QString(), fileSizeLimit);
        QCOMPARE(run.status, status);
        QVERIFY2(run.errLines().size() == 1, qPrintable(run.err));
        for (const QString& culprit : culprits)
            QVERIFY2(run.err.contains(culprit), qPrintable(run.err));
        if (status == 4) {
            QVERIFY(!QFile::exists(dir.filePath("long.xml")) && !QFile::exists(dir.filePath("out/frame_000000.tif")));
            QDirIterator files(dir.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
            while (files.hasNext())
                QVERIFY2(!files.next().section('/', -1).startsWith('.'), qPrintable(files.filePath()));
        }
    }

    // A camera description may claim a sensor far larger than the frame. Every
    // node either works on what lies inside the picture or refuses at once; none
    // sizes its buffers from the claim (that cost FFT 1D 13 GB and 40 s).
    void zoneOutsideThePicture_data()
    {
        QTest::addColumn<QString>("node");
        QTest::addColumn<int>("left");
        for (const char* node : {"Deinterlace", "Extract Channel", "Filter Images", "Image Averaging", "LUT Mapping",
                                 "Mosaic Filter", "Mosaic Filter:interpolation=0", "Median Filter",
                                 "Fast Fourier Transform 2D", "Fast Fourier Transform 1D", "Rotate", "RGB-NIR Processing",
                                 "Merge Sequence"}) {
            QTest::addRow("%s, zone reaching far past", node) << QString::fromLatin1(node) << 0;
            QTest::addRow("%s, zone beside the picture", node) << QString::fromLatin1(node) << 100;
        }
    }

    void zoneOutsideThePicture()
    {
        QFETCH(QString, node);
        QFETCH(int, left);
        QTemporaryDir dir;
        QByteArray samples(256, 0);
        for (int i = 0; i < samples.size(); ++i)
            samples[i] = char(i);
        QString bands;
        for (int b = 0; b < 4; ++b)
            bands += QString("<Band name=\"b%1\" wavelength=\"%2\"/>").arg(b).arg(500 + 10 * b);
        QVERIFY(writeFile(dir.filePath("f.raw"), samples));
        QVERIFY(writeFile(dir.filePath("camera.xml"),
                          QString("<QlarCamera bitsPerSample=\"8\" colorFilterArray=\"7\"><HsiCameraParams version=\"1\">"
                                  "<FilterZone left=\"%1\" top=\"0\" right=\"1073741823\" bottom=\"1073741823\" "
                                  "patternWidth=\"2\" patternHeight=\"2\">%2</FilterZone></HsiCameraParams></QlarCamera>")
                              .arg(left)
                              .arg(bands)
                              .toUtf8()));
        QElapsedTimer clock;
        clock.start();
        const SxRun run = runQlarrun({dir.filePath("f.raw"), "--raw", "16x16", "--camera-file", dir.filePath("camera.xml"),
                                      "--node", node, "--out", dir.filePath("out"), "--quiet"});
        QVERIFY2(run.status == 0 || run.status == 3, qPrintable(QString::number(run.status) + run.err));
        QVERIFY2(clock.elapsed() < 20000, qPrintable(QString::number(clock.elapsed())));
    }

    // Every picture and document the fuzz targets start from (hostile ones
    // among them: a 402-byte TIFF whose header claims 2 GB) costs qlarrun little
    // more than the program itself: the largest child's peak stays under 100 MB.
    // The sanitizer build's shadow memory would say nothing about the program.
    void corpusCostsLittleMemory()
    {
#if defined(__SANITIZE_ADDRESS__)
        QSKIP("peak memory means nothing under AddressSanitizer");
#endif
        QTemporaryDir dir;
        const QDir corpus(QStringLiteral(QLAR_SOURCE_DIR "/tests/fuzz/corpus"));
        int runs = 0;
        for (const char* kind : {"tiff", "png", "pnm", "chain"}) {
            for (const QFileInfo& file : QDir(corpus.filePath(kind)).entryInfoList(QDir::Files)) {
                const QStringList input = QLatin1String(kind) == QLatin1String("chain")
                                              ? QStringList{"--chain", file.filePath(), "--frames", "1"}
                                              : QStringList{file.filePath()};
                const SxRun run = runQlarrun(input + QStringList{"--out", dir.filePath("out"), "--quiet"});
                QVERIFY2(run.status >= 0 && run.status <= 5, qPrintable(file.fileName()));
                ++runs;
            }
        }
        QVERIFY(runs >= 10);
        rusage usage{};
        getrusage(RUSAGE_CHILDREN, &usage);
        QVERIFY2(usage.ru_maxrss < 100 * 1024, qPrintable(QString::number(usage.ru_maxrss)));
    }
};

QTEST_GUILESS_MAIN(TestQlarrunFiles)
#include "tst_qlarrun_files.moc"
