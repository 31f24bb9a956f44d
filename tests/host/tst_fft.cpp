#include <CxFFT.h>
#include <CxFFTImageData.h>

#include <PictureKit.h>

#include <QtTest/QtTest>

#include <cmath>
#include <complex>
#include <thread>
#include <vector>

namespace {

using Spectrum = std::vector<std::complex<double>>;

// Direct centred DFT in double precision, summed along rows, then columns:
// out[y][x] = sum f[v][u] exp(-2 pi i ((x - w/2) u / w + (y - h/2) v / h)).
Spectrum referenceDft(const std::vector<double>& f, int w, int h)
{
    auto turns = [](int n) {
        Spectrum t(static_cast<size_t>(n));
        for (int j = 0; j < n; ++j)
            t[size_t(j)] = std::polar(1.0, -2 * M_PI * j / n);
        return t;
    };
    const Spectrum tw = turns(w), th = turns(h);
    Spectrum rows(f.size()), out(f.size());
    for (int v = 0; v < h; ++v)
        for (int x = 0; x < w; ++x)
            for (int u = 0; u < w; ++u)
                rows[size_t(v) * w + x] += f[size_t(v) * w + u] * tw[size_t(qint64(x - w / 2 + w) * u % w)];
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int v = 0; v < h; ++v)
                out[size_t(y) * w + x] += rows[size_t(v) * w + x] * th[size_t(qint64(y - h / 2 + h) * v % h)];
    return out;
}

// Float rounding stays far below this; a misplaced or missigned bin does not.
double tolerance(const std::vector<double>& f)
{
    double sum = 0;
    for (double v : f)
        sum += std::abs(v);
    return 1e-5 * sum + 1e-3;
}

// Samples that encode their position, inside the range of the type; columns
// 16 to 31 are zero, as where a cut-out leaves a picture empty.
std::vector<double> pattern(int w, int h, ExImageDataType t)
{
    const bool small = t == IDT_INT8 || t == IDT_UINT8;
    const bool isSigned = t == IDT_INT8 || t == IDT_INT16 || t == IDT_INT32;
    std::vector<double> v(size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const double s = (x * 37 + y * 101 + x * y * 7) % (small ? 100 : 30000) - (isSigned ? 50 : 0);
            v[size_t(y) * w + x] = x / 16 == 1 ? 0 : t == IDT_FLOAT ? s / 4 - 1000 : s;
        }
    return v;
}

struct Pic : kit::CxPicture
{
    Pic(int w, int h, ExImageDataType t, int padBytes = 0, quint32 channels = 1)
        : CxPicture(kit::format(quint32(w), quint32(h), channels, t, quint32(padBytes))) {}
    float at(int x, int y) const { return pic().row<float>(quint32(y))[x]; }
    void fill(const std::vector<double>& v)
    {
        refill([&](quint32 x, quint32 y, quint32) { return v[y * pic().width + x]; });
    }
};

} // namespace

struct SxTransform { int type; int w; int h; int inPad; int outPad; };
Q_DECLARE_METATYPE(SxTransform)

class TstFFT : public QObject
{
    Q_OBJECT
    QTemporaryDir m_cache;

private slots:
    void initTestCase()
    {
        QVERIFY(m_cache.isValid());
        qputenv("XDG_CACHE_HOME", m_cache.path().toLocal8Bit());
    }

    void transform1D_data()
    {
        QTest::addColumn<int>("n");
        for (int n : { 1, 2, 3, 5, 8, 12, 17, 100 })
            QTest::addRow("n=%d", n) << n;
    }
    void transform1D()
    {
        QFETCH(int, n);
        const std::vector<double> f = pattern(n, 1, IDT_FLOAT);
        std::vector<float> in(f.begin(), f.end()), re(f.size()), im(f.size());
        void* k[3] = {};
        QVERIFY(CxFFT::Alloc1D(n, k[0], k[1], k[2]));
        QVERIFY(CxFFT::Calc1D(in.data(), re.data(), im.data(), k[0], k[1], k[2]));
        const Spectrum ref = referenceDft(f, n, 1);
        const double tol = tolerance(f);
        for (int i = 0; i < n; ++i)
            QVERIFY2(std::abs(std::complex<double>(re[i], im[i]) - ref[i]) < tol, qPrintable(QString::number(i)));
        // The input is copied before anything is written, so it may be an output.
        QVERIFY(CxFFT::Calc1D(in.data(), in.data(), im.data(), k[0], k[1], k[2]));
        QCOMPARE(in, re);
        CxFFT::Free1D(k[0], k[1], k[2]);
    }

    void transform2D_data()
    {
        QTest::addColumn<SxTransform>("row");
        QTest::newRow("u8 1x1") << SxTransform{int(IDT_UINT8), 1, 1, 0, 0};
        QTest::newRow("u8 2x2") << SxTransform{int(IDT_UINT8), 2, 2, 0, 0};
        QTest::newRow("s8 5x3 padded") << SxTransform{int(IDT_INT8), 5, 3, 3, 0};
        QTest::newRow("u16 8x6") << SxTransform{int(IDT_UINT16), 8, 6, 0, 0};
        QTest::newRow("s16 7x9 padded") << SxTransform{int(IDT_INT16), 7, 9, 6, 12};
        QTest::newRow("u32 9x4 padded") << SxTransform{int(IDT_UINT32), 9, 4, 4, 4};
        QTest::newRow("s32 6x7") << SxTransform{int(IDT_INT32), 6, 7, 0, 8};
        QTest::newRow("float 7x9 padded") << SxTransform{int(IDT_FLOAT), 7, 9, 20, 0};
        QTest::newRow("u16 one column 1x7") << SxTransform{int(IDT_UINT16), 1, 7, 2, 4};
        QTest::newRow("u8 one row 9x1") << SxTransform{int(IDT_UINT8), 9, 1, 0, 0};
        QTest::newRow("u8 40x9") << SxTransform{int(IDT_UINT8), 40, 9, 0, 0};
        QTest::newRow("s8 35x12 padded") << SxTransform{int(IDT_INT8), 35, 12, 5, 0};
        // Several column blocks, the last one short.
        QTest::newRow("float 37x20 padded") << SxTransform{int(IDT_FLOAT), 37, 20, 12, 4};
        // Large enough to be split over threads.
        QTest::newRow("u16 401x331 threaded") << SxTransform{int(IDT_UINT16), 401, 331, 2, 4};
    }
    void transform2D()
    {
        QFETCH(SxTransform, row);
        const auto& [type, w, h, inPad, outPad] = row;
        Pic in(w, h, ExImageDataType(type), inPad), re(w, h, IDT_FLOAT, outPad), im(w, h, IDT_FLOAT, outPad);
        const std::vector<double> f = pattern(w, h, ExImageDataType(type));
        void* k[3] = {};
        QVERIFY(CxFFT::Alloc2D(re.pic(), k[0], k[1], k[2]));
        // A full frame first: what it leaves in the handles must not show
        // through where the next frame is zero.
        in.fill(std::vector<double>(f.size(), 1.0));
        QVERIFY(CxFFT::Calc2D(in.pic(), re.pic(), im.pic(), k[0], k[1], k[2]));
        in.fill(f);
        QVERIFY(CxFFT::Calc2D(in.pic(), re.pic(), im.pic(), k[0], k[1], k[2]));
        CxFFT::Free2D(k[0], k[1], k[2]);
        const Spectrum ref = referenceDft(f, w, h);
        const double tol = tolerance(f);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const std::complex<double> got(re.at(x, y), im.at(x, y));
                QVERIFY2(std::abs(got - ref[size_t(y) * w + x]) < tol,
                         qPrintable(QStringLiteral("(%1, %2): %3%4i").arg(x).arg(y).arg(got.real()).arg(got.imag())));
            }
        QVERIFY(re.padsIntact() && im.padsIntact());
    }

    void refusals2D_data()
    {
        QTest::addColumn<QString>("fault");
        for (const char* f : { "wider input", "taller output", "two channels", "double samples", "unknown type",
                               "null input pixels", "null re pixels", "16-bit im", "re overlaps im",
                               "pitch below row", "pitch off sample size", "null h1", "foreign h2", "1D handles" })
            QTest::newRow(f) << QString::fromLatin1(f);
    }
    void refusals2D()
    {
        QFETCH(QString, fault);
        const int w = 6, h = 5;
        Pic in(w + (fault == "wider input"), h, fault == "double samples" ? IDT_DOUBLE : IDT_UINT16, 2,
               fault == "two channels" ? 2 : 1);
        Pic re(w, h + (fault == "taller output"), IDT_FLOAT), im(w, h, fault == "16-bit im" ? IDT_UINT16 : IDT_FLOAT);
        void *k[3] = {}, *other[3] = {};
        QVERIFY(CxFFT::Alloc2D(im.pic(), k[0], k[1], k[2]));
        QVERIFY(CxFFT::Alloc1D(w, other[0], other[1], other[2]));
        const bool oneD = fault == "1D handles";
        void* h1 = fault == "null h1" ? nullptr : oneD ? other[0] : k[0];
        void* h2 = fault == "foreign h2" || oneD ? other[1] : k[1];
        void* h3 = oneD ? other[2] : k[2];
        SxPicBuf src = in.pic(), r = re.pic(), i = im.pic();
        const kit::CxPicture reBefore = re, imBefore = im;
        if (fault == "unknown type")
            src.dataType = ExImageDataType(77);
        if (fault == "null input pixels")
            src.data = nullptr;
        if (fault == "null re pixels")
            r.data = nullptr;
        if (fault == "re overlaps im")
            i.data = r.data + 4;
        if (fault == "pitch below row")
            src.linePitch = 2 * w - 2;
        if (fault == "pitch off sample size")
            src.linePitch = 2 * w + 1;
        QVERIFY(!CxFFT::Calc2D(src, r, i, h1, h2, h3));
        QVERIFY(re.memory() == reBefore.memory() && im.memory() == imBefore.memory());
        CxFFT::Free2D(k[0], k[1], k[2]);
        CxFFT::Free1D(other[0], other[1], other[2]);
    }

    void refusals1D()
    {
        void *k[3] = {}, *other[3] = {};
        QVERIFY(!CxFFT::Alloc1D(0, k[0], k[1], k[2]));
        QVERIFY(!CxFFT::Alloc1D(-3, k[0], k[1], k[2]));
        QVERIFY(!CxFFT::Alloc2D(SxPicBufInfo(), k[0], k[1], k[2]));
        QVERIFY(!k[0] && !k[1] && !k[2]);
        Pic p(4, 4, IDT_FLOAT);
        QVERIFY(CxFFT::Alloc1D(4, k[0], k[1], k[2]));
        QVERIFY(CxFFT::Alloc2D(p.pic(), other[0], other[1], other[2]));
        float in[4] = { 1, 2, 3, 4 }, re[4] = {}, im[4] = {};
        QVERIFY(!CxFFT::Calc1D(in, re, im, nullptr, k[1], k[2]));
        QVERIFY(!CxFFT::Calc1D(in, re, im, other[0], other[1], other[2]));
        QVERIFY(!CxFFT::Calc1D(in, re, im, k[0], k[2], k[1]));
        QVERIFY(!CxFFT::Calc1D(nullptr, re, im, k[0], k[1], k[2]));
        QVERIFY(!CxFFT::Calc1D(in, re, re, k[0], k[1], k[2]));
        QVERIFY(CxFFT::Calc1D(in, re, im, k[0], k[1], k[2]));
        QCOMPARE(re[2], 10.f);
        // Free takes either kind, in any split; the leak checker sees the rest.
        CxFFT::Free2D(k[0], k[1], k[2]);
        CxFFT::Free1D(other[0], nullptr, nullptr);
        CxFFT::Free1D(nullptr, other[1], other[2]);
    }

    void allocFreeRepeatedAcrossThreads()
    {
        // Planning from several threads at once is serialised, and transforms
        // with different handles do not disturb each other.
        auto work = [](int seed, bool* ok) {
            for (int round = 0; round < 20; ++round) {
                const int w = 3 + (seed + round) % 9, h = 2 + (seed * 3 + round) % 7;
                const float sum = float((seed + 1) * w * h);
                Pic in(w, h, IDT_UINT8), re(w, h, IDT_FLOAT), im(w, h, IDT_FLOAT);
                in.fill(std::vector<double>(size_t(w) * h, seed + 1));
                void* k[3] = {};
                *ok = *ok && CxFFT::Alloc2D(in.pic(), k[0], k[1], k[2])
                    && CxFFT::Calc2D(in.pic(), re.pic(), im.pic(), k[0], k[1], k[2]) && std::abs(re.at(w / 2, h / 2) - sum) < 1e-3f * sum;
                CxFFT::Free2D(k[0], k[1], k[2]);
            }
        };
        bool ok[4] = { true, true, true, true };
        std::vector<std::thread> threads;
        for (int s = 0; s < 4; ++s)
            threads.emplace_back(work, s, &ok[s]);
        for (auto& t : threads)
            t.join();
        QVERIFY(ok[0] && ok[1] && ok[2] && ok[3]);
        // The measured plans are kept for the next process.
        QVERIFY(CxFFT::wisdomFilePath().startsWith(m_cache.path()));
        QVERIFY(QFileInfo(CxFFT::wisdomFilePath()).size() > 0);
    }

    void packetOwnsItsParts()
    {
        const SxPicBufInfo f = kit::format(8, 4, 1, IDT_FLOAT);
        void* pool = CxPicBufAPI::CreateMemoryPool(f, 2, "fft");
        SxPicBuf re, im, source;
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, re, f, false));
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, im, f, false));
        QVERIFY(CxPicBufAPI::AllocPicBufFromHeap(source, f, true, 0));
        auto* packet = new CxFFTImageData;
        QVERIFY(!packet->sourcePicBuf());
        packet->setPicBufReIm(re, im, &source);
        QCOMPARE(packet->picBuf()->data, re.data);  // generic consumers see the real part
        QCOMPARE(packet->picBufIm()->data, im.data);
        QCOMPARE(packet->sourcePicBuf()->data, source.data);
        // The same memory handed in again, swapped or twice, keeps one owner.
        packet->setPicBufReIm(*packet->picBufIm(), *packet->picBufRe(), packet->sourcePicBuf());
        packet->setPicBufReIm(re, re, nullptr);
        QCOMPARE(CxPicBufAPI::MemoryPoolFreeCount(pool), 1);  // im went back; the source was freed
        QVERIFY(!packet->sourcePicBuf());
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, im, f, false));
        packet->setPicBufReIm(re, im, nullptr);
        IxChainData* asPacket = packet;
        QVERIFY(qobject_cast<CxImageData*>(asPacket));
        delete asPacket;
        QCOMPARE(CxPicBufAPI::MemoryPoolFreeCount(pool), 2);
        CxPicBufAPI::ReleaseMemoryPool(pool);
    }
};

QTEST_GUILESS_MAIN(TstFFT)
#include "tst_fft.moc"
