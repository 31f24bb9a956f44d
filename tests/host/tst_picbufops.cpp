// Picture operations against deliberately naive per-sample references (and
// OpenCV's demosaic for Bayer interiors), on odd sizes, padded pitches and
// pictures whose memory ends right after the last row's samples.
#include <PictureKit.h>

#include <QtTest/QtTest>

#include <opencv2/imgproc.hpp>

#include <functional>

namespace {

const QSize shapes[] = {{1, 1}, {1, 9}, {9, 1}, {7, 5}, {33, 17}};
SxPicBufInfo resized(SxPicBufInfo f, QSize s)
{
    f.width = quint32(s.width()), f.height = quint32(s.height());
    f.linePitch = quint32(f.packedLineBytes());
    return f;
}
using Num = long double;
enum Layout { Packed, Padded, Tight };
// Tight pictures are padded too, their memory ending with the last row's samples.
struct Pic : kit::CxPicture
{
    explicit Pic(const SxPicBufInfo& f, Layout l = Packed)
        : CxPicture(l == Packed ? f : kit::padded(f), {}, {}, l == Layout::Tight ? CxPicture::Tight : WholeRows) {}
};
Num get(const Pic& p, quint32 x, quint32 y, quint32 c) { return kit::sampleValue<Num>(p.pic(), x, y, c); }
void set(Pic& p, quint32 x, quint32 y, quint32 c, Num n) { kit::setSample(p.pic(), x, y, c, n); }
// A value as a sample of type t would hold it: rounded to the float type, or
// held inside the integer range.
Num asSample(Num v, ExImageDataType t)
{
    if (t == IDT_FLOAT) return float(v);
    if (t == IDT_DOUBLE) return double(v);
    return qBound(kit::lowest(t), v, kit::highest(t));
}

using Op = std::function<bool(SxPicBuf& out, const SxPicBuf& in)>;
// Expected output sample from the output's previous value and the input picture.
using Ref = std::function<Num(Num old, const Pic& in, quint32 x, quint32 y, quint32 c)>;
const char* name(ExImageDataType t)
{
    static const auto names = [] { QList<QByteArray> n; for (int i = 0; i < 12; ++i) n << dataTypeName(ExImageDataType(i)).toLatin1(); return n; }();
    return names[t].constData();
}

// The first samples of a 7 x 3 picture; the rest are 1.5.
struct MinMaxCase { int type; QList<double> samples; bool ignoreNonFinite, found; float min, max; };
enum Damage { Sound, OutNoPixels, InNoPixels, OutBeyondMemory, InBeyondMemory, OutPitchShort };
struct CopyCase { int type; quint32 channels; bool samePicture; QRect from; QPoint to; };

} // namespace

Q_DECLARE_METATYPE(MinMaxCase)
Q_DECLARE_METATYPE(CopyCase)
Q_DECLARE_METATYPE(Op)
Q_DECLARE_METATYPE(Ref)

class TstPicBufOps : public QObject
{
    Q_OBJECT
private slots:
    void samplewise_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<Ref>("ref");
        QTest::addColumn<SxPicBufInfo>("outFormat");
        QTest::addColumn<SxPicBufInfo>("inFormat");
        using API = CxPicBufAPI;
        struct Pair { ExImageDataType out, in; };

        const QList<Pair> sums = {{IDT_UINT32, IDT_UINT8}, {IDT_UINT32, IDT_UINT16}, {IDT_UINT32, IDT_UINT32}, {IDT_INT32, IDT_INT8},
                                  {IDT_INT32, IDT_INT32}, {IDT_INT32, IDT_UINT16}, {IDT_FLOAT, IDT_FLOAT}, {IDT_UINT64, IDT_UINT32},
                                  {IDT_INT64, IDT_INT32}, {IDT_DOUBLE, IDT_UINT16}, {IDT_UINT8, IDT_UINT8}, {IDT_INT16, IDT_INT8}};
        const QList<Pair> squares = {{IDT_UINT32, IDT_UINT8}, {IDT_UINT32, IDT_INT8}, {IDT_UINT32, IDT_UINT16}, {IDT_UINT64, IDT_UINT16},
                                     {IDT_UINT64, IDT_INT16}, {IDT_UINT64, IDT_UINT32}, {IDT_UINT64, IDT_INT32}, {IDT_FLOAT, IDT_FLOAT}};
        for (bool sq : {false, true})
            for (const Pair& p : sq ? squares : sums)
                for (quint32 ch : {1u, 3u, 4u}) {
                    const Op op = [sq](SxPicBuf& o, const SxPicBuf& i) { return sq ? API::AddSquares(o, i) : API::Add(o, i); };
                    const Ref ref = [sq, t = p.out](Num old, const Pic& in, quint32 x, quint32 y, quint32 c) {
                        const Num v = get(in, x, y, c);
                        if (t == IDT_FLOAT)  // float sums add in their own precision, squares exactly
                            return Num(sq ? float(double(old) + double(v) * double(v)) : float(old) + float(v));
                        return asSample(old + (sq ? v * v : v), t);
                    };
                    // Four channels stand for colour RGBA, whose sums keep three.
                    QTest::addRow("%s %s+=%s x%u", sq ? "AddSquares" : "Add", name(p.out), name(p.in), ch)
                        << op << ref << kit::format(1, 1, qMin(ch, 3u), p.out) << kit::format(1, 1, ch, p.in, 0, CFA_NONE, DSF_PACKED, ch == 4);
                }
        for (ExImageDataType t : {IDT_INT8, IDT_UINT8, IDT_INT16, IDT_UINT16, IDT_INT32, IDT_UINT32, IDT_INT64, IDT_UINT64, IDT_FLOAT, IDT_DOUBLE})
            for (bool isMin : {true, false})
                QTest::addRow("%s %s", isMin ? "Min" : "Max", name(t))
                    << Op([isMin](SxPicBuf& o, const SxPicBuf& i) { return isMin ? API::Min(o, i) : API::Max(o, i); })
                    << Ref([isMin](Num old, const Pic& in, quint32 x, quint32 y, quint32 c) {
                           return isMin ? qMin(old, get(in, x, y, c)) : qMax(old, get(in, x, y, c)); })
                    << kit::format(1, 1, 2, t) << kit::format(1, 1, 2, t);

        const Pair quotients[] = {{IDT_UINT8, IDT_UINT32}, {IDT_UINT16, IDT_UINT32}, {IDT_UINT32, IDT_UINT32}, {IDT_INT8, IDT_INT32},
                                  {IDT_INT32, IDT_INT32}, {IDT_UINT8, IDT_INT32}, {IDT_FLOAT, IDT_FLOAT}, {IDT_INT16, IDT_FLOAT},
                                  {IDT_UINT16, IDT_UINT64}, {IDT_INT32, IDT_INT64}, {IDT_UINT8, IDT_UINT8}, {IDT_DOUBLE, IDT_UINT32}};
        for (const Pair& p : quotients)
            for (int d : {1, 2, 3, 7, 65536, 1000003, 2147483647})
                for (quint32 ch : {1u, 4u}) {
                    const Ref ref = [d, t = p.out](Num, const Pic& in, quint32 x, quint32 y, quint32 c) -> Num {
                        if (c == 3 && in.pic().channels == 3)  // opaque alpha; the u8 outputs have 7 significant bits
                            return kit::isFloat(t) ? 1 : t == IDT_UINT8 ? 127 : kit::highest(t);
                        const Num n = get(in, x, y, c);
                        if (t == IDT_FLOAT) return float(double(n) / d);
                        if (t == IDT_DOUBLE) return double(n) / d;
                        if (kit::isFloat(in.pic().dataType)) return asSample(std::round(double(n) / d), t);
                        const __int128 m = (2 * __int128(std::fabs(n)) + d) / (2 * __int128(d));  // halves away from zero
                        return asSample(n < 0 ? -Num(m) : Num(m), t);
                    };
                    QTest::addRow("DivideByValue %s/%d->%s x%u", name(p.in), d, name(p.out), ch)
                        << Op([d](SxPicBuf& o, const SxPicBuf& i) { return API::DivideByValue(i, d, o); }) << ref
                        << kit::format(1, 1, ch, p.out, 0, CFA_NONE, DSF_PACKED, ch == 4, p.out == IDT_UINT8 ? 7 : 0) << kit::format(1, 1, qMin(ch, 3u), p.in);
                }

        for (ExImageDataType t : {IDT_UINT8, IDT_INT16, IDT_HALF, IDT_UINT32, IDT_FLOAT, IDT_DOUBLE})
            for (quint32 ch : {1u, 2u, 3u, 4u, 5u})
                for (quint32 k : QSet<quint32>{0, ch / 2, ch - 1})
                    QTest::addRow("ExtractChannel %s x%u channel %u", name(t), ch, k)
                        << Op([k](SxPicBuf& o, const SxPicBuf& i) { return API::ExtractChannel(i, o, k); })
                        << Ref([k](Num, const Pic& in, quint32 x, quint32 y, quint32) { return get(in, x, y, k); })
                        << kit::format(1, 1, 1, t) << kit::format(1, 1, ch, t);

        struct Fill { ExImageDataType t; quint32 ch; int channel; uint value; Num stored; };  // channel -1: all
        const Fill fills[] = {{IDT_UINT8, 3, -1, 300, 255}, {IDT_INT8, 1, -1, 200, 127}, {IDT_INT32, 2, -1, 4294967295u, 2147483647},
                              {IDT_UINT32, 1, -1, 4294967295u, 4294967295u}, {IDT_FLOAT, 4, -1, 1, 1}, {IDT_UINT8, 4, 3, 255, 255},
                              {IDT_INT8, 2, 0, 255, 127}, {IDT_DOUBLE, 2, 1, 9, 9}};
        for (const Fill& f : fills)
            QTest::addRow("Fill %s x%u channel %d with %u", name(f.t), f.ch, f.channel, f.value)
                << Op([f](SxPicBuf& o, const SxPicBuf&) {
                       return f.channel < 0 ? API::FillChannelsValue(o, f.value) : API::FillChannelWithValue(o, uint(f.channel), ushort(f.value)); })
                << Ref([f](Num old, const Pic&, quint32, quint32, quint32 c) { return f.channel < 0 || int(c) == f.channel ? f.stored : old; })
                << kit::format(1, 1, f.ch, f.t) << kit::format(1, 1);

        // Display RGB is B, G, R, A: integers lose their significant bits beyond 8.
        const Op toRgb = [](SxPicBuf& o, const SxPicBuf& i) { return API::ConvertPicToRGB(i, o); };
        const auto level = [](const Pic& in, quint32 x, quint32 y, quint32 c) {
            const Num v = get(in, x, y, c);
            if (kit::isFloat(in.pic().dataType))  // over 0..1 when the picture records no range
                return v == v ? Num(qBound(0, int(std::floor(v * 255 + 0.5L)), 255)) : Num(0);
            return v <= 0 ? Num(0) : qMin(Num(255), std::floor(std::ldexp(v, 8 - int(qMax(8u, in.pic().bitsPerSample)))));
        };
        const Ref grey = [level](Num, const Pic& in, quint32 x, quint32 y, quint32 c) { return c == 3 ? 255 : level(in, x, y, 0); };
        const Ref colour = [level](Num, const Pic& in, quint32 x, quint32 y, quint32 c) { return c == 3 ? 255 : level(in, x, y, c); };
        const SxPicBufInfo rgba = kit::format(1, 1, 4, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true);
        SxPicBufInfo cmyg = kit::format(1, 1);
        cmyg.colorFilterArray = CFA_CMYG;
        QTest::newRow("ToRgb u16 of 12 bits") << toRgb << grey << rgba << kit::format(1, 1, 1, IDT_UINT16, 0, CFA_NONE, DSF_PACKED, false, 12);
        QTest::newRow("ToRgb s16") << toRgb << grey << rgba << kit::format(1, 1, 1, IDT_INT16);
        QTest::newRow("ToRgb f64") << toRgb << grey << rgba << kit::format(1, 1, 1, IDT_DOUBLE);
        QTest::newRow("ToRgb 3 numbered channels") << toRgb << grey << rgba << kit::format(1, 1, 3, IDT_UINT8);
        QTest::newRow("ToRgb rgba u16 of 10 bits") << toRgb << colour << rgba << kit::format(1, 1, 4, IDT_UINT16, 0, CFA_NONE, DSF_PACKED, true, 10);
        QTest::newRow("ToRgb cmyg mosaic as grey") << toRgb << grey << rgba << cmyg;
    }

    void samplewise()
    {
        QFETCH(Op, op);
        QFETCH(Ref, ref);
        QFETCH(SxPicBufInfo, outFormat);
        QFETCH(SxPicBufInfo, inFormat);
        for (const QSize& s : shapes) {
            for (Layout l : {Packed, Padded, Tight}) {
                const QString where = QStringLiteral("%1x%2 layout %3").arg(s.width()).arg(s.height()).arg(l);
                Pic out(resized(outFormat, s), l), in(resized(inFormat, s), Layout((l + 1) % 3));
                kit::fillRandom(out.pic(), s.width() * 100 + s.height());
                kit::fillRandom(in.pic(), s.width() + s.height() * 1000);
                const Pic before = out;
                QVERIFY2(op(out.pic(), in.pic()), qPrintable(where));
                for (quint32 y = 0; y < out.pic().height; ++y)
                    for (quint32 x = 0; x < out.pic().width; ++x)
                        for (quint32 c = 0; c < out.pic().channels; ++c) {
                            const Num old = get(before, x, y, c), want = ref(old, in, x, y, c), got = get(out, x, y, c);
                            QVERIFY2(got == want, qPrintable(QStringLiteral("%1 at (%2,%3,%4): %5 from %6 and %7, want %8").arg(where)
                                .arg(x).arg(y).arg(c).arg(double(got)).arg(double(old)).arg(double(get(in, x, y, qMin(c, in.pic().channels - 1)))).arg(double(want))));
                        }
                QVERIFY2(out.padsIntact(), qPrintable(where));
            }
        }
    }

    // A raw 2x2 mosaic gives each of its cells as a channel of half its size.
    void mosaicCells()
    {
        for (ExImageDataType t : {IDT_INT8, IDT_INT16, IDT_DOUBLE})
            for (const QSize& s : shapes)
                for (quint32 k = 0; k < 4; ++k) {
                    SxPicBufInfo f = resized(kit::format(1, 1, 1, t), s);
                    f.colorFilterArray = CFA_BAYER_GBRG;
                    Pic in(f, Tight), out(resized(kit::format(1, 1, 1, t), QSize(s.width() / 2, s.height() / 2)), Padded);
                    kit::fillRandom(in.pic(), k);
                    QVERIFY(CxPicBufAPI::ExtractChannel(in.pic(), out.pic(), k));
                    for (quint32 y = 0; y < out.pic().height; ++y)
                        for (quint32 x = 0; x < out.pic().width; ++x)
                            QCOMPARE(get(out, x, y, 0), get(in, 2 * x + k % 2, 2 * y + k / 2, 0));
                    QVERIFY(out.padsIntact());
                }
    }

    void bayerToRgb_data()
    {
        QTest::addColumn<int>("cfa");
        QTest::addColumn<int>("cvCode");  // OpenCV names a pattern by the second row's second and third cells
        QTest::newRow("RGGB") << int(CFA_BAYER_RGGB) << int(cv::COLOR_BayerBG2BGR);
        QTest::newRow("GRBG") << int(CFA_BAYER_GRBG) << int(cv::COLOR_BayerGB2BGR);
        QTest::newRow("GBRG") << int(CFA_BAYER_GBRG) << int(cv::COLOR_BayerGR2BGR);
        QTest::newRow("BGGR") << int(CFA_BAYER_BGGR) << int(cv::COLOR_BayerRG2BGR);
    }

    void bayerToRgb()
    {
        QFETCH(int, cfa);
        QFETCH(int, cvCode);
        const int colourAt[4][4] = {{0, 1, 1, 2}, {1, 0, 2, 1}, {1, 2, 0, 1}, {2, 1, 1, 0}};  // R, G, B per cell
        for (const QSize& s : shapes) {
            SxPicBufInfo f = resized(kit::format(1, 1), s);
            f.colorFilterArray = ExColorFilterArray(cfa);
            Pic in(f, Tight), out(resized(kit::format(1, 1, 4, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true), s), Padded);
            // A flat scene comes out flat, borders included.
            const uchar rgb[3] = {200, 120, 40};
            for (quint32 y = 0; y < f.height; ++y)
                for (quint32 x = 0; x < f.width; ++x)
                    *kit::sampleAt(in.pic(), x, y) = rgb[colourAt[cfa - 1][(y & 1) * 2 + (x & 1)]];
            QVERIFY(CxPicBufAPI::ConvertPicToRGB(in.pic(), out.pic()));
            for (quint32 y = 0; y < f.height && f.width > 1 && f.height > 1; ++y)
                for (quint32 x = 0; x < f.width; ++x)
                    QVERIFY(std::memcmp(kit::sampleAt(out.pic(), x, y), "\x28\x78\xc8\xff", 4) == 0);
            // Texture matches OpenCV's bilinear demosaic away from the border.
            std::mt19937 rng(cfa);
            for (quint32 y = 0; y < f.height; ++y)
                std::generate_n(in.pic().rowPtr(y), f.width, [&] { return uchar(rng()); });
            QVERIFY(CxPicBufAPI::ConvertPicToRGB(in.pic(), out.pic()));
            QVERIFY(out.padsIntact());
            if (s.width() < 3 || s.height() < 3)
                continue;
            cv::Mat bgr;
            cv::cvtColor(cv::Mat(s.height(), s.width(), CV_8UC1, in.pic().data, in.pic().linePitch), bgr, cvCode);
            for (int y = 1; y + 1 < s.height(); ++y)
                for (int x = 1; x + 1 < s.width(); ++x)
                    QVERIFY2(std::memcmp(kit::sampleAt(out.pic(), x, y), bgr.ptr(y, x), 3) == 0, qPrintable(QStringLiteral("%1,%2").arg(x).arg(y)));
        }
    }

    void floatMinMax_data()
    {
        QTest::addColumn<MinMaxCase>("c");
        const double nan = qQNaN(), inf = qInf();
        QTest::newRow("plain") << MinMaxCase{int(IDT_FLOAT), QList<double>{3, -2.5, 8}, false, true, -2.5f, 8.f};
        QTest::newRow("NaN skipped") << MinMaxCase{int(IDT_FLOAT), QList<double>{nan, 2, nan}, false, true, 1.5f, 2.f};
        QTest::newRow("infinities count") << MinMaxCase{int(IDT_FLOAT), QList<double>{-inf, 2, inf}, false, true, float(-inf), float(inf)};
        QTest::newRow("infinities ignored") << MinMaxCase{int(IDT_FLOAT), QList<double>{-inf, 2, inf, nan}, true, true, 1.5f, 2.f};
        QTest::newRow("double beyond float") << MinMaxCase{int(IDT_DOUBLE), QList<double>{1e300, -7}, false, true, -7.f, float(inf)};
        QTest::newRow("all NaN") << MinMaxCase{int(IDT_FLOAT), QList<double>(21, nan), false, false, 0.f, 0.f};
        QTest::newRow("all infinite, ignored") << MinMaxCase{int(IDT_DOUBLE), QList<double>(21, inf), true, false, 0.f, 0.f};
        QTest::newRow("u16 refused") << MinMaxCase{int(IDT_UINT16), QList<double>{3}, false, false, 0.f, 0.f};
    }

    void floatMinMax()
    {
        QFETCH(MinMaxCase, c);
        const auto& [type, samples, ignoreNonFinite, found, min, max] = c;
        for (Layout l : {Packed, Padded, Tight}) {
            Pic pic(kit::format(7, 3, 1, ExImageDataType(type)), l);  // padding reads as -2.9e-16, below every sample
            for (int i = 0; i < 21; ++i)
                set(pic, i % 7, i / 7, 0, i < samples.size() ? samples[i] : 1.5);
            float mn = 42.f, mx = 43.f;
            QCOMPARE(CxPicBufAPI::CalcFloatDataMinMax(pic.pic(), mn, mx, ignoreNonFinite), found);
            QCOMPARE(mn, found ? min : 42.f);
            QCOMPARE(mx, found ? max : 43.f);
        }
    }

    void copyRect_data()
    {
        QTest::addColumn<CopyCase>("k");
        QTest::newRow("u8 inner") << CopyCase{int(IDT_UINT8), 1u, false, QRect(2, 1, 4, 3), QPoint(0, 2)};
        QTest::newRow("u16 rgb whole") << CopyCase{int(IDT_UINT16), 3u, false, QRect(0, 0, 9, 7), QPoint(0, 0)};
        QTest::newRow("f64 far corner") << CopyCase{int(IDT_DOUBLE), 1u, false, QRect(8, 6, 1, 1), QPoint(8, 6)};
        QTest::newRow("zero width at the edge") << CopyCase{int(IDT_UINT8), 1u, false, QRect(9, 0, 0, 7), QPoint(9, 0)};
        QTest::newRow("overlap down right") << CopyCase{int(IDT_UINT8), 2u, true, QRect(1, 1, 6, 4), QPoint(2, 3)};
        QTest::newRow("overlap up left") << CopyCase{int(IDT_UINT32), 1u, true, QRect(2, 2, 7, 5), QPoint(0, 1)};
        QTest::newRow("overlap in one row") << CopyCase{int(IDT_UINT8), 3u, true, QRect(0, 3, 8, 1), QPoint(1, 3)};
    }

    void copyRect()
    {
        QFETCH(CopyCase, k);
        const auto& [type, channels, samePicture, from, to] = k;
        const SxPicBufInfo f = kit::format(9, 7, channels, ExImageDataType(type));
        Pic src(f, Tight), other(f, Padded);
        kit::fillRandom(src.pic(), 5);
        kit::fillRandom(other.pic(), 6);
        Pic& dst = samePicture ? src : other;
        Pic want(f);
        for (quint32 y = 0; y < 7; ++y)
            for (quint32 x = 0; x < 9; ++x)
                for (quint32 c = 0; c < channels; ++c) {
                    const bool inside = from.width() && QRect(to, from.size()).contains(int(x), int(y));
                    set(want, x, y, c, inside ? get(src, x - to.x() + from.x(), y - to.y() + from.y(), c) : get(dst, x, y, c));
                }
        QVERIFY(CxPicBufAPI::CopyRect(dst.pic(), to.x(), to.y(), src.pic(), from.x(), from.y(), from.width(), from.height()));
        for (quint32 y = 0; y < 7; ++y)
            for (quint32 x = 0; x < 9; ++x)
                for (quint32 c = 0; c < channels; ++c)
                    QVERIFY2(get(dst, x, y, c) == get(want, x, y, c), qPrintable(QStringLiteral("%1,%2").arg(x).arg(y)));
        QVERIFY(dst.padsIntact());
    }

    void refusals_data()
    {
        QTest::addColumn<Op>("op");
        QTest::addColumn<SxPicBufInfo>("outFormat");
        QTest::addColumn<SxPicBufInfo>("inFormat");
        QTest::addColumn<int>("damage");
        using API = CxPicBufAPI;
        const auto f = [](ExImageDataType t, quint32 ch = 1, bool colour = false) { return kit::format(5, 4, ch, t, 0, CFA_NONE, DSF_PACKED, colour); };
        const Op add = [](SxPicBuf& o, const SxPicBuf& i) { return API::Add(o, i); };
        const Op squares = [](SxPicBuf& o, const SxPicBuf& i) { return API::AddSquares(o, i); };
        const Op max = [](SxPicBuf& o, const SxPicBuf& i) { return API::Max(o, i); };
        const auto divide = [](int d) { return Op([d](SxPicBuf& o, const SxPicBuf& i) { return API::DivideByValue(i, d, o); }); };
        const auto extract = [](uint k) { return Op([k](SxPicBuf& o, const SxPicBuf& i) { return API::ExtractChannel(i, o, k); }); };
        const auto copy = [](uint sx, uint sy, uint w, uint h) {
            return Op([=](SxPicBuf& o, const SxPicBuf& i) { return API::CopyRect(o, 0, 0, i, sx, sy, w, h); }); };
        const Op toRgb = [](SxPicBuf& o, const SxPicBuf& i) { return API::ConvertPicToRGB(i, o); };
        const Op fill = [](SxPicBuf& o, const SxPicBuf&) { return API::FillChannelsValue(o, 1); };
        const Op fillAlpha = [](SxPicBuf& o, const SxPicBuf&) { return API::FillChannelWithValue(o, 3, 1); };
        const Op minMax = [](SxPicBuf& o, const SxPicBuf&) { float a, b; return API::CalcFloatDataMinMax(o, a, b, false); };
        SxPicBufInfo planar = f(IDT_UINT8, 3, true);
        planar.storageFormat = DSF_PLANAR;
        QTest::newRow("Add u8 sum of u16") << add << f(IDT_UINT8) << f(IDT_UINT16) << int(Sound);
        QTest::newRow("Add u32 sum of f32") << add << f(IDT_UINT32) << f(IDT_FLOAT) << int(Sound);
        QTest::newRow("Add size mismatch") << add << f(IDT_UINT32) << kit::format(5, 3) << int(Sound);
        QTest::newRow("Add rgb of unmarked rgba") << add << f(IDT_UINT32, 3) << f(IDT_UINT8, 4) << int(Sound);
        QTest::newRow("AddSquares u32 of u32") << squares << f(IDT_UINT32) << f(IDT_UINT32) << int(Sound);
        QTest::newRow("Max rgba into rgb") << max << f(IDT_UINT8, 3) << f(IDT_UINT8, 4, true) << int(Sound);
        QTest::newRow("Divide by 0") << divide(0) << f(IDT_UINT8) << f(IDT_UINT32) << int(Sound);
        QTest::newRow("Divide into u64") << divide(2) << f(IDT_UINT64) << f(IDT_UINT32) << int(Sound);
        QTest::newRow("Extract channel 4 of 4") << extract(4) << f(IDT_UINT8) << f(IDT_UINT8, 4, true) << int(Sound);
        QTest::newRow("Extract into another type") << extract(0) << f(IDT_UINT16) << f(IDT_UINT8, 4) << int(Sound);
        QTest::newRow("Extract planar") << extract(1) << f(IDT_UINT8) << planar << int(Sound);
        SxPicBufInfo bayer = kit::format(10, 8, 1, IDT_UINT16), half = kit::format(5, 4, 1, IDT_UINT16);
        bayer.colorFilterArray = CFA_BAYER_RGGB;
        QTest::newRow("Extract mosaic cell 4") << extract(4) << half << bayer << int(Sound);
        bayer.storageFormat = DSF_NOT_RAW;
        QTest::newRow("Extract cell of a finished picture") << extract(1) << half << bayer << int(Sound);
        QTest::newRow("CopyRect past the right edge") << copy(1, 0, 5, 4) << f(IDT_UINT8) << f(IDT_UINT8) << int(Sound);
        QTest::newRow("CopyRect wrapping origin") << copy(0xffffffffu, 0, 2, 1) << f(IDT_UINT8) << f(IDT_UINT8) << int(Sound);
        QTest::newRow("CopyRect type mismatch") << copy(0, 0, 1, 1) << f(IDT_UINT8) << f(IDT_INT8) << int(Sound);
        QTest::newRow("ToRgb into 3 channels") << toRgb << f(IDT_UINT8, 3) << f(IDT_UINT8) << int(Sound);
        QTest::newRow("ToRgb from u64") << toRgb << f(IDT_UINT8, 4, true) << f(IDT_UINT64) << int(Sound);
        QTest::newRow("FillChannel 4 of 4") << Op([](SxPicBuf& o, const SxPicBuf&) { return API::FillChannelWithValue(o, 4, 1); })
                                            << f(IDT_UINT8, 4) << f(IDT_UINT8) << int(Sound);
        QTest::newRow("Fill half") << fill << f(IDT_HALF) << f(IDT_UINT8) << int(Sound);
        QTest::newRow("MinMax of u16") << minMax << f(IDT_UINT16) << f(IDT_UINT8) << int(Sound);

        // Calls that work on sound pictures, given damaged ones.
        const struct { const char* name; Op op; SxPicBufInfo out, in; bool usesIn; } working[] = {
            {"Add", add, f(IDT_UINT32), f(IDT_UINT8), true}, {"AddSquares", squares, f(IDT_UINT32), f(IDT_UINT8), true},
            {"Max", max, f(IDT_UINT8), f(IDT_UINT8), true}, {"Divide", divide(3), f(IDT_UINT8), f(IDT_UINT32), true},
            {"Extract", extract(2), f(IDT_UINT8), f(IDT_UINT8, 4, true), true}, {"ToRgb", toRgb, f(IDT_UINT8, 4, true), f(IDT_UINT8), true},
            {"CopyRect", copy(0, 0, 5, 4), f(IDT_UINT8), f(IDT_UINT8), true}, {"Fill", fill, f(IDT_UINT8), f(IDT_UINT8), false},
            {"FillChannel", fillAlpha, f(IDT_UINT8, 4), f(IDT_UINT8), false}, {"MinMax", minMax, f(IDT_FLOAT), f(IDT_UINT8), false}};
        const char* const damages[] = {"", "out without pixels", "in without pixels", "out beyond its memory",
                                       "in beyond its memory", "out pitch shorter than a row"};
        for (const auto& w : working)
            for (int d = OutNoPixels; d <= OutPitchShort; ++d)
                if (w.usesIn || (d != InNoPixels && d != InBeyondMemory))
                    QTest::addRow("%s, %s", w.name, damages[d]) << w.op << w.out << w.in << d;
    }

    void refusals()
    {
        QFETCH(Op, op);
        QFETCH(SxPicBufInfo, outFormat);
        QFETCH(SxPicBufInfo, inFormat);
        QFETCH(int, damage);
        Pic out(outFormat, Tight), in(inFormat, Tight);
        kit::fillRandom(in.pic(), 1);
        const std::vector<uchar> before = out.memory();
        if (damage != Sound) {
            QVERIFY(op(out.pic(), in.pic()));
            std::copy(before.begin(), before.end(), out.bytes());
        }
        SxPicBuf o = out.pic(), i = in.pic();
        switch (damage) {
        case OutNoPixels: o.data = nullptr; break;
        case InNoPixels: i.data = nullptr; break;
        case OutBeyondMemory: o.memCapacity -= 1; break;
        case InBeyondMemory: i.memCapacity -= 1; break;
        case OutPitchShort: o.linePitch = quint32(o.packedLineBytes() - 1); break;
        }
        QVERIFY(!op(o, i));
        QVERIFY(out.memory() == before);
    }

    // Pictures big enough to be split over threads give what the same operation
    // gives one row at a time on the calling thread.
    void largePicturesMatchRowByRow()
    {
        using API = CxPicBufAPI;
        const quint32 w = 1021, h = 257;
        const struct { Op op; SxPicBufInfo out, in; } cases[] = {
            {[](SxPicBuf& o, const SxPicBuf& i) { return API::Add(o, i); }, kit::format(w, h, 1, IDT_UINT32), kit::format(w, h)},
            {[](SxPicBuf& o, const SxPicBuf& i) { return API::AddSquares(o, i); }, kit::format(w, h, 3, IDT_UINT64), kit::format(w, h, 4, IDT_UINT16, 0, CFA_NONE, DSF_PACKED, true)},
            {[](SxPicBuf& o, const SxPicBuf& i) { return API::DivideByValue(i, 7, o); }, kit::format(w, h, 1, IDT_UINT16), kit::format(w, h, 1, IDT_UINT32)},
            {[](SxPicBuf& o, const SxPicBuf& i) { return API::ExtractChannel(i, o, 1); }, kit::format(w, h, 1, IDT_FLOAT), kit::format(w, h, 3, IDT_FLOAT)},
            {[](SxPicBuf& o, const SxPicBuf& i) { return API::ConvertPicToRGB(i, o); }, kit::format(w, h, 4, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true), kit::format(w, h, 1, IDT_UINT16, 0, CFA_NONE, DSF_PACKED, false, 12)},
            {[](SxPicBuf& o, const SxPicBuf& i) { return API::CopyRect(o, 0, 0, i, 0, 0, i.width, i.height); }, kit::format(w, h, 2, IDT_UINT16), kit::format(w, h, 2, IDT_UINT16)},
        };
        for (const auto& k : cases) {
            Pic out(k.out, Tight), in(k.in, Padded);
            kit::fillRandom(out.pic(), 1);
            kit::fillRandom(in.pic(), 2);
            Pic rows = out;
            QVERIFY(k.op(out.pic(), in.pic()));
            for (quint32 y = 0; y < h; ++y) {
                SxPicBuf o, i;
                QVERIFY(CxPicBufAPI::WrapPicBuf(o, resized(k.out, QSize(w, 1)), rows.bytes() + quint64(y) * out.pic().linePitch, out.pic().packedLineBytes()));
                QVERIFY(CxPicBufAPI::WrapPicBuf(i, resized(k.in, QSize(w, 1)), in.pic().rowPtr(y), in.pic().packedLineBytes()));
                QVERIFY(k.op(o, i));
            }
            QVERIFY(out.memory() == rows.memory());
        }
        Pic f(kit::format(w, h, 2, IDT_FLOAT), Tight);
        kit::fillRandom(f.pic(), 3);
        set(f, w - 1, h - 1, 1, -5000);
        set(f, 0, h / 2, 0, 7000);
        float mn = 0, mx = 0;
        QVERIFY(CxPicBufAPI::CalcFloatDataMinMax(f.pic(), mn, mx, false));
        QCOMPARE(mn, -5000.f);
        QCOMPARE(mx, 7000.f);
    }
};

QTEST_GUILESS_MAIN(TstPicBufOps)
#include "tst_picbufops.moc"
