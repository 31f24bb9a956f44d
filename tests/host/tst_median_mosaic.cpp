#include <PictureKit.h>

#include <QtCore/QRect>
#include <QtTest/QtTest>

#include <opencv2/imgproc.hpp>

#include <vector>

namespace {

struct TightPic : kit::CxPicture
{
    TightPic(int w, int h, ExImageDataType t, int padBytes = 0, int channels = 1)
        : CxPicture(kit::format(quint32(w), quint32(h), quint32(channels), t, quint32(padBytes))) {}
    template <class T> T& at(int x, int y, int c = 0) const
    {
        return *reinterpret_cast<T*>(const_cast<uchar*>(kit::sampleAt(pic(), quint64(x), quint64(y), quint64(c))));
    }
};

// Each channel of an interleaved picture on its own.
template <class T>
void naiveMedian(const TightPic& in, TightPic& out, int r)
{
    const int w = int(in.pic().width), h = int(in.pic().height), n = int(in.pic().channels);
    std::vector<T> win;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < n; ++c) {
                win.clear();
                for (int dy = -r; dy <= r; ++dy)
                    for (int dx = -r; dx <= r; ++dx)
                        win.push_back(in.at<T>(std::clamp(x + dx, 0, w - 1), std::clamp(y + dy, 0, h - 1), c));
                std::nth_element(win.begin(), win.begin() + win.size() / 2, win.end());
                out.at<T>(x, y, c) = win[win.size() / 2];
            }
}

cv::Mat asMat(const TightPic& pic)
{
    const int type = pic.pic().dataType == IDT_UINT8 ? CV_8U : CV_16U;
    return cv::Mat(int(pic.pic().height), int(pic.pic().width), type, pic.pic().data, pic.pic().linePitch);
}

enum Stat { Min, Max, Avg, Normalize };

bool runFilter(Stat st, const SxPicBuf& in, const QRect& rect, int px, int py, SxPicBuf& out)
{
    switch (st) {
    case Min: return CxPicBufAPI::FilterMinOnMosaicPicBuf(in, rect, px, py, out);
    case Max: return CxPicBufAPI::FilterMaxOnMosaicPicBuf(in, rect, px, py, out);
    case Avg: return CxPicBufAPI::FilterAvgOnMosaicPicBuf(in, rect, px, py, out);
    default: return CxPicBufAPI::FilterNormalizeOnMosaicPicBuf(in, rect, px, py, out);
    }
}

// The documented behaviour written out one sample at a time.
template <class T>
double naiveCell(const TightPic& in, Stat st, int x0, int y0, int px, int py)
{
    double lo = in.at<T>(x0, y0), hi = lo, sum = 0;
    for (int y = y0; y < y0 + py; ++y)
        for (int x = x0; x < x0 + px; ++x) {
            const double v = in.at<T>(x, y);
            lo = std::min(lo, v), hi = std::max(hi, v), sum += v;
        }
    if (st == Min)
        return lo;
    if (st == Max)
        return hi;
    const double mean = sum / (px * py);
    return std::is_floating_point_v<T> ? mean : (mean < 0 ? -std::floor(-mean + 0.5) : std::floor(mean + 0.5));
}

// One sample per cell tiles the rectangle as given, zero where the picture
// does not hold the cell whole; the other modes clip the rectangle first.
template <class T>
void naiveMosaic(const TightPic& in, Stat st, const QRect& given, int px, int py, TightPic& out)
{
    const QRect picture(0, 0, int(in.pic().width), int(in.pic().height));
    const QRect rect = given.intersected(picture);
    const int cellsX = rect.width() / px, cellsY = rect.height() / py;
    const bool fullSize = out.pic().width == in.pic().width && out.pic().height == in.pic().height;
    if (st == Normalize) {
        quint32 bits = std::min<quint32>(in.pic().bitsPerSample, 8 * sizeof(T) - (std::is_signed_v<T> ? 1 : 0));
        const double fs = std::is_floating_point_v<T> ? 1.0 : double((quint64(1) << bits) - 1);
        for (int y = 0; y < int(in.pic().height); ++y)
            for (int x = 0; x < int(in.pic().width); ++x) {
                const int i = (x - rect.left()) / px, j = (y - rect.top()) / py;
                T v = in.at<T>(x, y);
                if (x >= rect.left() && y >= rect.top() && i < cellsX && j < cellsY) {
                    const int cx = rect.left() + i * px, cy = rect.top() + j * py;
                    const double lo = naiveCell<T>(in, Min, cx, cy, px, py), hi = naiveCell<T>(in, Max, cx, cy, px, py);
                    const double n = hi > lo ? (double(v) - lo) / (hi - lo) * fs : 0.0;
                    v = T(std::is_floating_point_v<T> ? n : std::floor(n + 0.5));
                }
                out.at<T>(x, y) = v;
            }
    } else if (fullSize) {
        for (int y = 0; y < int(out.pic().height); ++y)
            for (int x = 0; x < int(out.pic().width); ++x)
                out.at<T>(x, y) = T(naiveCell<T>(in, st, std::clamp(x, rect.left(), rect.left() + rect.width() - px),
                                                 std::clamp(y, rect.top(), rect.top() + rect.height() - py), px, py));
    } else {
        for (int j = 0; j < given.height() / py; ++j)
            for (int i = 0; i < given.width() / px; ++i) {
                const QRect cell(given.left() + i * px, given.top() + j * py, px, py);
                out.at<T>(i, j) = picture.contains(cell) ? T(naiveCell<T>(in, st, cell.left(), cell.top(), px, py)) : T(0);
            }
    }
}

bool closeFloats(const TightPic& a, const TightPic& b)
{
    for (quint32 y = 0; y < a.pic().height; ++y)
        for (quint32 x = 0; x < a.pic().width; ++x)
            if (std::abs(a.at<float>(int(x), int(y)) - b.at<float>(int(x), int(y))) > 1e-4f)
                return false;
    return true;
}

struct MedianWork
{
    void* buf = nullptr;
    MedianWork(quint32 w, ExImageDataType t, int r, quint32 h = 1, quint32 channels = 1)
    {
        CxPicBufAPI::MedianAllocBuffer(kit::format(w, h, channels, t), r, &buf);
    }
    ~MedianWork() { CxPicBufAPI::MedianFreeBuffer(buf); }
};

struct MedianCase { ExImageDataType type; int w, h, radius, pad, distinct, channels = 1; };
struct MosaicCase { ExImageDataType type; Stat stat; QRect rect; int px, py; bool sliding; int w; };

} // namespace

Q_DECLARE_METATYPE(ExImageDataType)
Q_DECLARE_METATYPE(MedianCase)
Q_DECLARE_METATYPE(MosaicCase)

class TstMedianMosaic : public QObject
{
    Q_OBJECT
private slots:
    void median_data()
    {
        QTest::addColumn<MedianCase>("c");
        // Widths pick every vector width of both sample sizes, several tiles
        // of a row, and windows wider or taller than the picture.
        const QList<QPair<int, int>> sizes = {{1, 1},   {37, 1}, {1, 29}, {3, 2},   {12, 30},
                                              {20, 5},  {37, 23}, {70, 9}, {33, 40}, {333, 7}};
        for (ExImageDataType t : {IDT_UINT8, IDT_UINT16})
            for (const auto& s : sizes)
                for (int r = 1; r <= 12; ++r)
                    for (int pad : {0, 6}) {
                        // Few distinct values: ties and flat runs stress the histogram walk.
                        const int distinct = (s.first + r) % 3 == 0 ? 3 : 0;
                        QTest::addRow("%s %dx%d r%d%s%s", t == IDT_UINT8 ? "u8" : "u16", s.first, s.second, r,
                                      pad ? " padded" : "", distinct ? " ties" : "")
                            << MedianCase{t, s.first, s.second, r, pad, distinct};
                    }
        QTest::newRow("u16 300x90 r6") << MedianCase{IDT_UINT16, 300, 90, 6, 0, 0};
        QTest::newRow("u8 300x12 r20 across strips") << MedianCase{IDT_UINT8, 300, 12, 20, 0, 0};
        QTest::newRow("u8 12x5 r130 beyond byte column counts") << MedianCase{IDT_UINT8, 12, 5, 130, 0, 0};
        QTest::newRow("u8 30x9 r127 byte column counts full") << MedianCase{IDT_UINT8, 30, 9, 127, 0, 0};
        for (ExImageDataType t : {IDT_UINT8, IDT_UINT16})
            QTest::addRow("%s 9x5 r300 kernel far beyond the picture", t == IDT_UINT8 ? "u8" : "u16") << MedianCase{t, 9, 5, 300, t == IDT_UINT8 ? 3 : 2, 0};
        QTest::newRow("u16 70x40 r200 beyond the picture, few high bytes") << MedianCase{IDT_UINT16, 70, 40, 200, 0, 100};
        // Few high bytes: the low bytes' histogram follows the median across them.
        QTest::newRow("u16 200x30 r12 across strips, few high bytes") << MedianCase{IDT_UINT16, 200, 30, 12, 0, 100};
        QTest::newRow("u16 30x9 r127 few high bytes") << MedianCase{IDT_UINT16, 30, 9, 127, 2, 100};
        // Interleaved channels: kernel 3 filters them together, the larger
        // kernels in tiles of one channel.
        for (ExImageDataType t : {IDT_UINT8, IDT_UINT16})
            for (const auto& s : QList<QPair<int, int>>{{1, 3}, {3, 2}, {37, 23}, {333, 7}})
                for (int n : {2, 3, 4, 5})
                    for (int r : {1, 2, 4, 9})
                        QTest::addRow("%s %dx%d x%d r%d", t == IDT_UINT8 ? "u8" : "u16", s.first, s.second, n, r)
                            << MedianCase{t, s.first, s.second, r, 2 * (n % 2), 0, n};
    }
    void median()
    {
        QFETCH(MedianCase, c);
        const auto [type, w, h, radius, pad, distinct, n] = c;
        TightPic in(w, h, type, pad, n), out(w, h, type, pad + 2, n), ref(w, h, type, pad + 2, n);
        kit::fillRandom(in.pic(), quint32(w * 131 + h * 7 + radius), distinct);
        kit::withSampleType(type, [&](auto v) { naiveMedian<decltype(v)>(in, ref, c.radius); });
        MedianWork work(quint32(w), type, radius, quint32(h), quint32(n));
        QVERIFY(CxPicBufAPI::Median(in.pic(), out.pic(), radius, work.buf));
        QVERIFY(kit::samePixels(out.pic(), ref.pic()));
        QVERIFY(out.padsIntact());
    }

    // Frames big enough for the threaded bands, checked against OpenCV where
    // it supports the kernel.
    void medianMatchesOpenCv_data()
    {
        QTest::addColumn<ExImageDataType>("type");
        QTest::addColumn<int>("ksize");
        for (int k : {3, 5, 7, 9})
            QTest::addRow("u8 k%d", k) << IDT_UINT8 << k;
        for (int k : {3, 5})
            QTest::addRow("u16 k%d", k) << IDT_UINT16 << k;
    }
    void medianMatchesOpenCv()
    {
        QFETCH(ExImageDataType, type);
        QFETCH(int, ksize);
        TightPic in(641, 203, type, 4), out(641, 203, type);
        kit::fillRandom(in.pic(), 99);
        MedianWork work(641, type, ksize / 2);
        QVERIFY(CxPicBufAPI::Median(in.pic(), out.pic(), ksize / 2, work.buf));
        cv::Mat expected;
        cv::medianBlur(asMat(in), expected, ksize);
        QCOMPARE(cv::norm(asMat(out), expected, cv::NORM_INF), 0.0);
    }

    // One buffer made for the largest call serves a run of calls whose
    // kernels share its scratch: what one leaves behind must not leak into
    // the next (the 16-bit histograms keep theirs zeroed between calls).
    void oneBufferServesEveryKernel()
    {
        MedianWork big(500, IDT_UINT16, 20);
        const QList<QPair<ExImageDataType, int>> calls = {{IDT_UINT16, 20}, {IDT_UINT16, 5}, {IDT_UINT16, 20},
                                                          {IDT_UINT16, 10}, {IDT_UINT8, 7},  {IDT_UINT16, 10},
                                                          {IDT_UINT8, 0},   {IDT_UINT16, 20}};
        for (int i = 0; i < calls.size(); ++i) {
            const auto [type, radius] = calls[i];
            TightPic in(70, 23, type, 4), out(70, 23, type), ref(70, 23, type);
            kit::fillRandom(in.pic(), quint32(i + 1), i % 2 ? 0 : 300);
            kit::withSampleType(type, [&](auto v) { naiveMedian<decltype(v)>(in, ref, radius); });
            const QByteArray call = QByteArray::number(i);
            QVERIFY2(CxPicBufAPI::Median(in.pic(), out.pic(), radius, big.buf), call);
            QVERIFY2(kit::samePixels(out.pic(), ref.pic()), call);
        }
    }

    // Pictures of several tiles, channels too many for the networks' tiles,
    // and tiles made one channel at a time (16 channels of a large kernel):
    // each channel as its own picture would be.
    void channelsMatchPlanes_data()
    {
        QTest::addColumn<MedianCase>("c");
        QTest::addColumn<int>("bufferScale");  // the buffer is made for a picture this many times larger
        QTest::newRow("u8 600x300 x4 r2") << MedianCase{IDT_UINT8, 600, 300, 2, 0, 0, 4} << 1;
        QTest::newRow("u16 300x280 x3 r12") << MedianCase{IDT_UINT16, 300, 280, 12, 2, 0, 3} << 1;
        QTest::newRow("u16 200x40 x16 r8 margins beyond a network tile") << MedianCase{IDT_UINT16, 200, 40, 8, 0, 0, 16} << 1;
        QTest::newRow("u8 2000x300 x16 r6 tiles narrower than the rows") << MedianCase{IDT_UINT8, 2000, 300, 6, 0, 0, 16} << 1;
        QTest::newRow("u8 700x700 x16 r300 one channel at a time") << MedianCase{IDT_UINT8, 700, 700, 300, 0, 0, 16} << 1;
        // The buffer holds one channel's larger tiles, not all four of this picture's.
        QTest::newRow("u8 700x700 x4 r300 buffer for a larger picture") << MedianCase{IDT_UINT8, 700, 700, 300, 0, 0, 4} << 2;
    }
    void channelsMatchPlanes()
    {
        QFETCH(MedianCase, c);
        QFETCH(int, bufferScale);
        const auto [type, w, h, radius, pad, distinct, n] = c;
        TightPic in(w, h, type, pad, n), out(w, h, type, 0, n);
        kit::fillRandom(in.pic(), 7, distinct);
        MedianWork work(quint32(w * bufferScale), type, radius, quint32(h * bufferScale), quint32(n));
        QVERIFY(CxPicBufAPI::Median(in.pic(), out.pic(), radius, work.buf));
        MedianWork one(quint32(w), type, radius);
        TightPic plane(w, h, type), filtered(w, h, type);
        kit::withSampleType(type, [&](auto v) {
            using T = decltype(v);
            for (int ch = 0; ch < n; ++ch) {
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x)
                        plane.at<T>(x, y) = in.at<T>(x, y, ch);
                QVERIFY(CxPicBufAPI::Median(plane.pic(), filtered.pic(), radius, one.buf));
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x)
                        if (filtered.at<T>(x, y) != out.at<T>(x, y, ch))
                            QFAIL(qPrintable(QString("%1,%2 c%3").arg(x).arg(y).arg(ch)));
            }
        });
    }

    void medianRefusals_data()
    {
        QTest::addColumn<QString>("what");
        for (const char* s : {"no buffer", "kernel 3 buffer for kernel 5", "8-bit histogram for 16-bit", "signed 16-bit",
                              "float", "planar", "channels differ", "sizes differ", "types differ", "no pixels",
                              "negative radius", "in place", "odd pitch for 16-bit"})
            QTest::newRow(s) << QString::fromLatin1(s);
    }
    void medianRefusals()
    {
        QFETCH(QString, what);
        ExImageDataType inType = what == "signed 16-bit" ? IDT_INT16 : what == "float" ? IDT_FLOAT : IDT_UINT16;
        TightPic in(40, 9, inType), out(40, what == "sizes differ" ? 8 : 9, what == "types differ" ? IDT_UINT8 : inType);
        int radius = what == "negative radius" ? -1 : what == "8-bit histogram for 16-bit" ? 3
                   : what == "kernel 3 buffer for kernel 5"                                   ? 2 : 1;
        MedianWork work(40, what == "8-bit histogram for 16-bit" ? IDT_UINT8 : IDT_UINT16,
                        radius == 2 || radius < 0 ? 1 : radius);
        void* buf = what == "no buffer" ? nullptr : work.buf;
        SxPicBuf src = in.pic(), dst = out.pic();
        if (what == "planar")
            src.storageFormat = dst.storageFormat = DSF_PLANAR;
        if (what == "channels differ")
            src.channels = 2, src.width = dst.width = 20;
        if (what == "no pixels")
            src.data = nullptr;
        if (what == "in place")
            dst = src;
        if (what == "odd pitch for 16-bit")
            src.linePitch = 81, src.height = 8, dst.height = 8;
        const std::vector<uchar> before(out.pic().data, out.pic().data + out.pic().requiredBytes());
        QVERIFY(!CxPicBufAPI::Median(src, dst, radius, buf));
        QVERIFY(std::equal(before.begin(), before.end(), out.pic().data));
    }

    void medianAllocRefusals()
    {
        SxPicBufInfo f = kit::format(16, 4, 1, IDT_INT8);
        void* buf = reinterpret_cast<void*>(1);
        QVERIFY(!CxPicBufAPI::MedianAllocBuffer(f, 1, &buf));
        QCOMPARE(buf, nullptr);
        f.dataType = IDT_UINT8;
        QVERIFY(!CxPicBufAPI::MedianAllocBuffer(f, -1, &buf));
        QVERIFY(!CxPicBufAPI::MedianAllocBuffer(f, 1, nullptr));
        CxPicBufAPI::MedianFreeBuffer(nullptr);
    }

    void mosaic_data()
    {
        QTest::addColumn<MosaicCase>("c");
        const char* statNames[] = {"min", "max", "avg", "normalize"};
        struct Geo { const char* name; QRect rect; int px, py, w; };
        const Geo geos[] = {{"bayer", QRect(0, 0, 75, 23), 2, 2, 75},
                            {"bayer wide", QRect(0, 0, 200, 6), 2, 2, 201},
                            {"3x3 in rect", QRect(3, 2, 29, 17), 3, 3, 37},
                            {"5x5 in rect", QRect(1, 1, 33, 21), 5, 5, 37},
                            {"5x5 wider than a strip", QRect(2, 0, 2100, 23), 5, 5, 2103},
                            {"4x2 rect past the picture", QRect(-3, 5, 90, 90), 4, 2, 37}};
        for (ExImageDataType t : {IDT_UINT8, IDT_UINT16})
            for (const Geo& g : geos)
                for (int st = Min; st <= Normalize; ++st)
                    for (bool sliding : {false, true}) {
                        if (st == Normalize && !sliding)
                            continue;
                        QTest::addRow("%s %s %s%s", t == IDT_UINT8 ? "u8" : "u16", g.name, statNames[st],
                                      sliding && st != Normalize ? " sliding" : "")
                            << MosaicCase{t, Stat(st), g.rect, g.px, g.py, sliding, g.w};
                    }
        // The wider and signed types share one code path; one geometry each.
        const QPair<ExImageDataType, const char*> others[] = {
            {IDT_INT8, "s8"}, {IDT_INT16, "s16"}, {IDT_INT32, "s32"}, {IDT_UINT32, "u32"}, {IDT_FLOAT, "f32"}};
        for (const auto& o : others)
            for (int st = Min; st <= Normalize; ++st)
                for (bool sliding : {false, true})
                    if (st != Normalize || sliding)
                        QTest::addRow("%s 3x3 in rect %s%s", o.second, statNames[st], sliding ? " sliding" : "")
                            << MosaicCase{o.first, Stat(st), QRect(3, 2, 29, 17), 3, 3, sliding, 37};
    }
    void mosaic()
    {
        QFETCH(MosaicCase, c);
        const auto [type, stat, rect, px, py, sliding, w] = c;
        const int h = 23;
        TightPic in(w, h, type, 8);
        kit::fillRandom(in.pic(), quint32(w + px * 10 + int(stat)));
        const int ow = sliding ? w : rect.width() / px, oh = sliding ? h : rect.height() / py;
        TightPic out(ow, oh, type, 4), ref(ow, oh, type, 4);
        QVERIFY(runFilter(stat, in.pic(), rect, px, py, out.pic()));
        kit::withSampleType(type, [&](auto v) { naiveMosaic<decltype(v)>(in, c.stat, c.rect, c.px, c.py, ref); });
        QVERIFY(type == IDT_FLOAT ? closeFloats(out, ref) : kit::samePixels(out.pic(), ref.pic()));
    }

    void normalizeUsesSignificantBits()
    {
        TightPic in(4, 2, IDT_UINT16), out(4, 2, IDT_UINT16);
        in.pic().bitsPerSample = 12;
        const quint16 v[8] = {100, 200, 50, 50, 300, 300, 50, 50};
        for (int i = 0; i < 8; ++i)
            in.at<quint16>(i % 4, i / 4) = v[i];
        QVERIFY(CxPicBufAPI::FilterNormalizeOnMosaicPicBuf(in.pic(), QRect(0, 0, 4, 2), 2, 2, out.pic()));
        const quint16 expected[8] = {0, 2048, 0, 0, 4095, 4095, 0, 0};  // right cell is flat
        for (int i = 0; i < 8; ++i)
            QCOMPARE(out.at<quint16>(i % 4, i / 4), expected[i]);
    }

    void bayerAverageMatchesOpenCvAreaResize()
    {
        TightPic in(640, 480, IDT_UINT8), out(320, 240, IDT_UINT8);
        kit::fillRandom(in.pic(), 3);
        QVERIFY(CxPicBufAPI::FilterAvgOnMosaicPicBuf(in.pic(), QRect(0, 0, 640, 480), 2, 2, out.pic()));
        cv::Mat expected;
        cv::resize(asMat(in), expected, cv::Size(320, 240), 0, 0, cv::INTER_AREA);
        QCOMPARE(cv::norm(asMat(out), expected, cv::NORM_INF), 0.0);
    }

    void mosaicRefusals_data()
    {
        QTest::addColumn<QString>("what");
        for (const char* s : {"period 0", "negative period", "output size of neither mode", "rect outside picture",
                              "rect smaller than a cell", "double samples", "types differ", "three channels",
                              "no pixels", "in place", "normalize into cell-sized output"})
            QTest::newRow(s) << QString::fromLatin1(s);
    }
    void mosaicRefusals()
    {
        QFETCH(QString, what);
        const ExImageDataType t = what == "double samples" ? IDT_DOUBLE : IDT_UINT16;
        const bool cellOut = what == "normalize into cell-sized output";
        TightPic in(20, 10, t), out(cellOut ? 10 : 20, cellOut ? 5 : (what == "output size of neither mode" ? 9 : 10),
                                    what == "types differ" ? IDT_UINT8 : t);
        QRect rect(0, 0, 20, 10);
        int px = what == "period 0" ? 0 : 2, py = what == "negative period" ? -2 : 2;
        if (what == "rect outside picture")
            rect = QRect(20, 0, 4, 4);
        if (what == "rect smaller than a cell")
            rect = QRect(18, 8, 1, 2);
        SxPicBuf src = in.pic(), dst = out.pic();
        if (what == "three channels")
            src.channels = dst.channels = 3;
        if (what == "no pixels")
            src.data = nullptr;
        if (what == "in place")
            dst = src;
        const std::vector<uchar> before(out.pic().data, out.pic().data + out.pic().requiredBytes());
        QVERIFY(!runFilter(cellOut ? Normalize : Avg, src, rect, px, py, dst));
        QVERIFY(!runFilter(cellOut ? Normalize : Max, src, rect, px, py, dst));
        QVERIFY(std::equal(before.begin(), before.end(), out.pic().data));
    }
};

QTEST_GUILESS_MAIN(TstMedianMosaic)
#include "tst_median_mosaic.moc"
