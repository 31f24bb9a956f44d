#include "RotateImageCnbl.h"
#include "RotateImageWidget.h"

#include <KitDispatch.h>
#include <KitRows.h>

#include <QtXml/QDomDocument>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace {

const QString kClockwiseAttribute = QStringLiteral("rotClockwise");

// Width and height swap with the setting, so the pool picture may grow.
constexpr nodekit::FrameRules kFrame{nodekit::ForeignDropped, nodekit::StoppingDropped, nodekit::PoolGrows};

// A pixel of K samples moved as one value. Only the size matters, so signed
// and unsigned types share one instantiation.
template <size_t Bytes>
struct SxPixel
{
    unsigned char b[Bytes];
};
template <size_t Bytes> struct PixelOf { using type = SxPixel<Bytes>; };
template <> struct PixelOf<1> { using type = std::uint8_t; };
template <> struct PixelOf<2> { using type = std::uint16_t; };
template <> struct PixelOf<4> { using type = std::uint32_t; };
template <> struct PixelOf<8> { using type = std::uint64_t; };

// Input pixel (x, r) goes to dst + x * xStep + r * rStep (bytes); dst is the
// output address of input pixel (0, 0).
struct SxTurn
{
    const uchar* src;
    qint64 srcPitch;
    uchar* dst;
    qint64 xStep;
    qint64 rStep;
    qint64 width;   // input
    qint64 height;  // input
};

SxTurn turnOf(const SxPicBuf& in, SxPicBuf& out, bool clockwise)
{
    const qint64 pixelBytes = qint64(in.bytesPerPixel());
    const qint64 w = in.width, h = in.height, pitch = out.linePitch;
    SxTurn t{in.data, qint64(in.effectiveLinePitch()), out.data, 0, 0, w, h};
    if (clockwise) {
        t.dst += (h - 1) * pixelBytes;
        t.xStep = pitch;
        t.rStep = -pixelBytes;
    } else {
        t.dst += (w - 1) * pitch;
        t.xStep = -pitch;
        t.rStep = pixelBytes;
    }
    return t;
}

// Square tiles of up to 128 x 128 pixels and 64 KiB: the lines a tile reads
// and writes stay in the core's cache until they are used up, which a plain
// row-by-row turn (one output column per input row) never achieves on large
// frames. A band of tiles is one chunk of work for a thread.
constexpr qint64 kMaxTileEdge = 128;
constexpr qint64 kMaxTileBytes = 64 * 1024;

qint64 tileEdge(qint64 pixelBytes)
{
    qint64 edge = kMaxTileEdge;
    while (edge > 8 && edge * edge * pixelBytes > kMaxTileBytes)
        edge /= 2;
    return edge;
}

// A rectangle pixel by pixel: reads go down an input column (inside a tile,
// so the lines stay cached), writes run along an output row.
template <class P>
inline void turnRect(const SxTurn& t, qint64 pixelBytes, qint64 x0, qint64 x1, qint64 r0, qint64 r1)
{
    constexpr bool fixedSize = !std::is_void_v<P>;
    const qint64 step = fixedSize ? qint64(sizeof(std::conditional_t<fixedSize, P, char>)) : pixelBytes;
    for (qint64 x = x0; x < x1; ++x) {
        const uchar* s = t.src + r0 * t.srcPitch + x * step;
        uchar* d = t.dst + x * t.xStep + r0 * t.rStep;
        for (qint64 r = r0; r < r1; ++r, s += t.srcPitch, d += t.rStep) {
            if constexpr (fixedSize)
                std::memcpy(d, s, sizeof(P));
            else
                std::memcpy(d, s, size_t(pixelBytes));
        }
    }
}

// Square blocks turned in registers for the common pixel sizes: S input rows
// of S pixels, inStep bytes apart, are transposed and stored as S runs of S
// pixels, outStep bytes apart, one per output row.
template <class P>
struct SxBlock
{
    static constexpr qint64 size = 0;
};

#ifdef __SSE2__
template <>
struct SxBlock<std::uint8_t>
{
    // 16 x 16: every store fills a whole 16-byte register, where 8 x 8
    // blocks stored half registers and switched output rows twice as often.
    static constexpr qint64 size = 16;
    static void turn(const uchar* in, qint64 inStep, uchar* out, qint64 outStep)
    {
        __m128i v[16], w[16];
        for (int i = 0; i < 16; ++i)
            v[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i * inStep));
        // Four rounds of interleaving neighbours, at 1, 2, 4 and 8 bytes,
        // leave input column bitReversed(i) in v[i].
        for (int i = 0; i < 8; ++i) {
            w[i] = _mm_unpacklo_epi8(v[2 * i], v[2 * i + 1]);
            w[i + 8] = _mm_unpackhi_epi8(v[2 * i], v[2 * i + 1]);
        }
        for (int i = 0; i < 8; ++i) {
            v[i] = _mm_unpacklo_epi16(w[2 * i], w[2 * i + 1]);
            v[i + 8] = _mm_unpackhi_epi16(w[2 * i], w[2 * i + 1]);
        }
        for (int i = 0; i < 8; ++i) {
            w[i] = _mm_unpacklo_epi32(v[2 * i], v[2 * i + 1]);
            w[i + 8] = _mm_unpackhi_epi32(v[2 * i], v[2 * i + 1]);
        }
        for (int i = 0; i < 8; ++i) {
            v[i] = _mm_unpacklo_epi64(w[2 * i], w[2 * i + 1]);
            v[i + 8] = _mm_unpackhi_epi64(w[2 * i], w[2 * i + 1]);
        }
        static constexpr int bitReversed[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};
        for (int i = 0; i < 16; ++i)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + bitReversed[i] * outStep), v[i]);
    }
};

template <>
struct SxBlock<std::uint16_t>
{
    static constexpr qint64 size = 8;
    static void turn(const uchar* in, qint64 inStep, uchar* out, qint64 outStep)
    {
        __m128i a[8];
        for (int i = 0; i < 8; ++i)
            a[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i * inStep));
        __m128i lo[4], hi[4];
        for (int i = 0; i < 4; ++i) {
            lo[i] = _mm_unpacklo_epi16(a[2 * i], a[2 * i + 1]);
            hi[i] = _mm_unpackhi_epi16(a[2 * i], a[2 * i + 1]);
        }
        const __m128i u[8] = {_mm_unpacklo_epi32(lo[0], lo[1]), _mm_unpackhi_epi32(lo[0], lo[1]),
                              _mm_unpacklo_epi32(lo[2], lo[3]), _mm_unpackhi_epi32(lo[2], lo[3]),
                              _mm_unpacklo_epi32(hi[0], hi[1]), _mm_unpackhi_epi32(hi[0], hi[1]),
                              _mm_unpacklo_epi32(hi[2], hi[3]), _mm_unpackhi_epi32(hi[2], hi[3])};
        for (int i = 0; i < 4; ++i) {
            const __m128i& top = u[i < 2 ? i : i + 2];
            const __m128i& bottom = u[i < 2 ? i + 2 : i + 4];
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * i * outStep), _mm_unpacklo_epi64(top, bottom));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + (2 * i + 1) * outStep),
                             _mm_unpackhi_epi64(top, bottom));
        }
    }
};

template <>
struct SxBlock<std::uint32_t>
{
    // Four 4 x 4 register blocks per call: each output row visited takes 32
    // bytes instead of 16, halving the row (and page) switches per pixel.
    static constexpr qint64 size = 8;
    static void turn(const uchar* in, qint64 inStep, uchar* out, qint64 outStep)
    {
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 2; ++j)
                turn4(in + 4 * i * inStep + 16 * j, inStep, out + 4 * j * outStep + 16 * i, outStep);
    }
    static void turn4(const uchar* in, qint64 inStep, uchar* out, qint64 outStep)
    {
        __m128i a[4];
        for (int i = 0; i < 4; ++i)
            a[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i * inStep));
        const __m128i t0 = _mm_unpacklo_epi32(a[0], a[1]), t1 = _mm_unpacklo_epi32(a[2], a[3]);
        const __m128i t2 = _mm_unpackhi_epi32(a[0], a[1]), t3 = _mm_unpackhi_epi32(a[2], a[3]);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi64(t0, t1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 1 * outStep), _mm_unpackhi_epi64(t0, t1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * outStep), _mm_unpacklo_epi64(t2, t3));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 3 * outStep), _mm_unpackhi_epi64(t2, t3));
    }
};
#endif

// One tile: whole blocks in registers where a block kernel exists, the
// strips along the tile's far edges pixel by pixel.
template <class P>
inline void turnTile(const SxTurn& t, qint64 pixelBytes, qint64 x0, qint64 x1, qint64 r0, qint64 r1)
{
    constexpr qint64 s = SxBlock<P>::size;
    if constexpr (s == 0) {
        turnRect<P>(t, pixelBytes, x0, x1, r0, r1);
    } else {
        const qint64 xEnd = x0 + (x1 - x0) / s * s;
        const qint64 rEnd = r0 + (r1 - r0) / s * s;
        // Clockwise, output addresses run against r, so a block is loaded
        // from its bottom row up. Blocks follow each other along the input
        // rows: camera rows are often a power of two bytes long, and walking
        // down an input column would make every row of the tile compete for
        // the same cache set.
        const bool bottomFirst = t.rStep < 0;
        const qint64 inStep = bottomFirst ? -t.srcPitch : t.srcPitch;
        for (qint64 r = r0; r < rEnd; r += s) {
            const qint64 firstRow = bottomFirst ? r + s - 1 : r;
            const uchar* in = t.src + firstRow * t.srcPitch + x0 * qint64(sizeof(P));
            uchar* out = t.dst + x0 * t.xStep + firstRow * t.rStep;
            for (qint64 x = x0; x < xEnd; x += s, in += s * qint64(sizeof(P)), out += s * t.xStep)
                SxBlock<P>::turn(in, inStep, out, t.xStep);
        }
        turnRect<P>(t, pixelBytes, x0, xEnd, rEnd, r1);
        turnRect<P>(t, pixelBytes, xEnd, x1, r0, r1);
    }
}

// P is the pixel moved as one value, or void for a size without one
// (pixelBytes then gives the length).
template <class P>
void turnPicture(const SxTurn& t, qint64 pixelBytes)
{
    const qint64 edge = tileEdge(pixelBytes);
    const qint64 bands = (t.height + edge - 1) / edge;
    // A band reads and writes its pixels once.
    const quint64 bandBytes = quint64(2 * edge * t.width * pixelBytes);
    pixelkit::forEachRow(quint32(bands), bandBytes, [&](quint32 band) {
        const qint64 r0 = qint64(band) * edge;
        const qint64 r1 = std::min(t.height, r0 + edge);
        for (qint64 x0 = 0; x0 < t.width; x0 += edge)
            turnTile<P>(t, pixelBytes, x0, std::min(t.width, x0 + edge), r0, r1);
    });
}

// Fixed-size copies for 1, 3 and 4 channels; other counts copy the pixel's
// bytes with a run-time length. Turning only moves samples, so the kernels
// exist per sample width (1, 2 and 4 bytes), not per type.
template <size_t SampleBytes>
void rotateImage(const SxPicBuf& in, SxPicBuf& out, bool clockwise)
{
    if (in.width == 0 || in.height == 0)
        return;
    const SxTurn t = turnOf(in, out, clockwise);
    const qint64 pixelBytes = qint64(in.channels) * qint64(SampleBytes);
    switch (in.channels) {
    case 1: turnPicture<typename PixelOf<SampleBytes>::type>(t, pixelBytes); break;
    case 3: turnPicture<typename PixelOf<3 * SampleBytes>::type>(t, pixelBytes); break;
    case 4: turnPicture<typename PixelOf<4 * SampleBytes>::type>(t, pixelBytes); break;
    default: turnPicture<void>(t, pixelBytes); break;
    }
}

bool hasKernel(ExImageDataType type, bool clockwise)
{
    // No counter-clockwise kernel for signed 32-bit samples: saved chains
    // rely on the frame being dropped rather than turned.
    if (type == IDT_INT32)
        return clockwise;
    using Turned = pixelkit::Only<qint8, quint8, qint16, quint16, quint32, float>;
    return pixelkit::withSampleTypeIn<Turned>(type, [](auto) { return true; });
}

// Pixels, channels, a kernel, and rows that do not overlap.
bool canRotateInput(const SxPicBuf& in, bool clockwise)
{
    return in.data && in.channels != 0 && hasKernel(in.dataType, clockwise)
           && (in.linePitch == 0 || in.linePitch >= in.packedLineBytes());
}

// An output of the turned size with room for its rows.
bool fitsOutput(const SxPicBuf& in, const SxPicBuf& out)
{
    return out.data && out.width == in.height && out.height == in.width && out.channels == in.channels
           && out.bytesPerSample() == in.bytesPerSample() && out.linePitch >= out.packedLineBytes();
}

} // namespace

template <class T>
void rotateImageClock(const SxPicBuf& in, SxPicBuf& out)
{
    rotateImage<sizeof(T)>(in, out, true);
}

template <class T>
void rotateImageCounterClock(const SxPicBuf& in, SxPicBuf& out)
{
    rotateImage<sizeof(T)>(in, out, false);
}

template void rotateImageClock<qint8>(const SxPicBuf&, SxPicBuf&);
template void rotateImageClock<quint8>(const SxPicBuf&, SxPicBuf&);
template void rotateImageClock<qint16>(const SxPicBuf&, SxPicBuf&);
template void rotateImageClock<quint16>(const SxPicBuf&, SxPicBuf&);
template void rotateImageClock<qint32>(const SxPicBuf&, SxPicBuf&);
template void rotateImageClock<quint32>(const SxPicBuf&, SxPicBuf&);
template void rotateImageClock<float>(const SxPicBuf&, SxPicBuf&);
template void rotateImageCounterClock<qint8>(const SxPicBuf&, SxPicBuf&);
template void rotateImageCounterClock<quint8>(const SxPicBuf&, SxPicBuf&);
template void rotateImageCounterClock<qint16>(const SxPicBuf&, SxPicBuf&);
template void rotateImageCounterClock<quint16>(const SxPicBuf&, SxPicBuf&);
template void rotateImageCounterClock<quint32>(const SxPicBuf&, SxPicBuf&);
template void rotateImageCounterClock<float>(const SxPicBuf&, SxPicBuf&);

CxRotateImageCnbl::CxRotateImageCnbl()
    : CxImageProvider(ExChainableFlags(FlagProcessor))
{
}

CxRotateImageCnbl::~CxRotateImageCnbl() = default;

QString CxRotateImageCnbl::title() const
{
    return tr("Rotate");
}

CxChainable* CxRotateImageCnbl::clone()
{
    auto* copy = new CxRotateImageCnbl;
    copy->m_clockwise = m_clockwise;
    return copy;
}

QWidget* CxRotateImageCnbl::configurationWidget()
{
    return new CxRotateConfigurationWidget(this);
}

void CxRotateImageCnbl::simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                                 bool& hasButtons)
{
    // Fixed symbols on the node, not translated.
    buttons.append(CxSimpleStateConfigButton(QStringLiteral("CCW"), ButtonCounterClockwise, true, !m_clockwise));
    buttons.append(CxSimpleStateConfigButton(QStringLiteral("CW"), ButtonClockwise, true, m_clockwise));
    hasButtons = true;
}

void CxRotateImageCnbl::simpleStateConfigButtonPressed(int id)
{
    setRotation(id == ButtonClockwise, true);
}

bool CxRotateImageCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kClockwiseAttribute, qlonglong(m_clockwise ? 1 : 0));
    return result;
}

bool CxRotateImageCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    m_clockwise = nodekit::attribute(element, kClockwiseAttribute, m_clockwise, nodekit::On::AboveZero);
    return result;
}

void CxRotateImageCnbl::setRotation(bool clockwise, bool restart)
{
    nodekit::setWithRestart(this, restart, [this, clockwise] { m_clockwise = clockwise; });
}

ExColorFilterArray CxRotateImageCnbl::rotatedColorFilterArray(ExColorFilterArray cfa, bool clockwise)
{
    // Clockwise, the bottom-left cell becomes the top-left one.
    switch (cfa) {
    case CFA_BAYER_RGGB: return clockwise ? CFA_BAYER_GRBG : CFA_BAYER_GBRG;
    case CFA_BAYER_GRBG: return clockwise ? CFA_BAYER_BGGR : CFA_BAYER_RGGB;
    case CFA_BAYER_GBRG: return clockwise ? CFA_BAYER_RGGB : CFA_BAYER_BGGR;
    case CFA_BAYER_BGGR: return clockwise ? CFA_BAYER_GBRG : CFA_BAYER_GRBG;
    default: return cfa;
    }
}

bool CxRotateImageCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                             const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        out.width = in.height;
        out.height = in.width;
        out.linePitch = quint32(out.packedLineBytes());
        out.colorFilterArray = rotatedColorFilterArray(in.colorFilterArray, m_clockwise);
        if (outMeta)
            outMeta->updateFromPicBufInfo(&out);
        return true;
    });
}

bool CxRotateImageCnbl::rotatePicture(const SxPicBuf& in, SxPicBuf& out, bool clockwise)
{
    if (!canRotateInput(in, clockwise) || !fitsOutput(in, out))
        return false;
    // canRotateInput has refused every other type, and signed 32-bit
    // counter-clockwise; only the sample width matters from here on.
    return pixelkit::withSampleBytes(in.bytesPerSample(), [&](auto tag) {
        using T = typename decltype(tag)::type;
        if constexpr (sizeof(T) == 8) {
            return false;
        } else {
            clockwise ? rotateImageClock<T>(in, out) : rotateImageCounterClock<T>(in, out);
            return true;
        }
    });
}

IxChainData* CxRotateImageCnbl::processData(IxChainData* data)
{
    const bool clockwise = m_clockwise;
    // Checked before a pool picture is taken, so that a dropped frame costs
    // nothing.
    const auto admit = [clockwise](const nodekit::Frame& f) {
        return canRotateInput(f.in, clockwise) ? nodekit::Go : nodekit::Drop;
    };
    return nodekit::processFrame(this, data, kFrame, admit, [clockwise](nodekit::Frame& f) {
        return rotatePicture(f.in, f.out, clockwise) ? nodekit::Go : nodekit::Drop;
    });
}
