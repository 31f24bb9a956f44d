#include "CxSyntheticCamera.h"
#include "CxImageData.h"
#include "CxPicBufAPI.h"

#include <QtCore/QDateTime>

#include <algorithm>
#include <cmath>

namespace {

inline quint32 mix(quint32 h)
{
    h ^= h >> 16;
    h *= 0x7feb352dU;
    h ^= h >> 15;
    h *= 0x846ca68bU;
    h ^= h >> 16;
    return h;
}

// Roughly Gaussian noise with unit deviation: the sum of four uniforms.
inline float noise(quint32 seed, qint64 n, quint32 x, quint32 y)
{
    quint32 h = mix(seed ^ mix(quint32(n) * 0x9e3779b9U ^ mix(x * 0x85ebca6bU ^ mix(y + 0x27d4eb2fU))));
    float s = 0.f;
    for (int i = 0; i < 4; ++i) {
        s += float(h & 0xffff) / 65535.f;
        h = mix(h + 0x632be5abU);
    }
    return (s - 2.f) * 1.7320508f;  // variance of the sum is 4/12
}

struct Rgb
{
    float r, g, b;
};

// The scene, in [0, 1] per colour: ramps, bars sliding one pixel per frame
// and a disc circling the centre.
inline Rgb scene(quint32 x, quint32 y, quint32 w, quint32 h, qint64 n)
{
    const float fx = float(x) / float(std::max<quint32>(w, 1));
    const float fy = float(y) / float(std::max<quint32>(h, 1));
    const float bars = (((x + quint64(n)) >> 4) & 1) ? 0.3f : 0.f;
    const float angle = float(n) * 0.1f;
    const float cx = 0.5f * w + 0.25f * w * std::cos(angle);
    const float cy = 0.5f * h + 0.25f * h * std::sin(angle);
    const float radius = 0.125f * float(std::min(w, h));
    const float dx = float(x) - cx, dy = float(y) - cy;
    const float disc = (dx * dx + dy * dy <= radius * radius) ? 0.4f : 0.f;
    return Rgb{0.15f + 0.45f * fx + disc, 0.15f + 0.3f * fy + bars, 0.1f + 0.3f * (1.f - fx) + disc * 0.5f};
}

inline float cellValue(ExColorFilterArray cfa, quint32 x, quint32 y, const Rgb& c)
{
    const int cell = int(((y & 1) << 1) | (x & 1));
    // Cell colours row by row for each 2x2 pattern: 0 red, 1 green, 2 blue,
    // 3 cyan, 4 magenta, 5 yellow.
    static const int table[7][4] = {{1, 1, 1, 1}, {0, 1, 1, 2}, {1, 0, 2, 1}, {1, 2, 0, 1},
                                    {2, 1, 1, 0}, {3, 4, 5, 1}, {0, 1, 2, 0}};
    const int k = (cfa >= CFA_BAYER_RGGB && cfa <= CFA_RGBR) ? table[cfa][cell] : 1;
    switch (k) {
    case 0: return c.r;
    case 1: return c.g;
    case 2: return c.b;
    case 3: return 0.5f * (c.g + c.b);
    case 4: return 0.5f * (c.r + c.b);
    default: return 0.5f * (c.r + c.g);
    }
}

template <class T>
void renderT(const CxSyntheticCamera::SxConfig& cfg, qint64 n, SxPicBuf& pic)
{
    const float full = float((quint64(1) << std::min<quint32>(cfg.bitsPerSample, sizeof(T) * 8)) - 1);
    const float sigma = float(cfg.noiseSigma) * full / 255.f;
    const quint32 w = pic.width, h = pic.height, ch = pic.channels;
    auto toSample = [&](float v, quint32 x, quint32 y, quint32 c) {
        float s = v * full + sigma * noise(cfg.seed + c, n, x, y);
        s = std::min(std::max(s, 0.f), full);
        return T(s + 0.5f);
    };
    for (quint32 y = 0; y < h; ++y) {
        T* row = pic.row<T>(y);
        for (quint32 x = 0; x < w; ++x) {
            const Rgb c = scene(x, y, w, h, n);
            switch (cfg.layout) {
            case CxSyntheticCamera::LayoutMono:
                row[x] = toSample(0.3f * c.r + 0.59f * c.g + 0.11f * c.b, x, y, 0);
                break;
            case CxSyntheticCamera::LayoutBayer:
                row[x] = toSample(cellValue(cfg.colorFilterArray, x, y, c), x, y, 0);
                break;
            case CxSyntheticCamera::LayoutRgb:
            case CxSyntheticCamera::LayoutRgba:
                row[x * ch + 0] = toSample(c.r, x, y, 0);
                row[x * ch + 1] = toSample(c.g, x, y, 1);
                row[x * ch + 2] = toSample(c.b, x, y, 2);
                if (ch == 4)
                    row[x * ch + 3] = T(full);
                break;
            }
        }
    }
}

} // namespace

CxSyntheticCamera::CxSyntheticCamera() : CxSyntheticCamera(SxConfig()) {}

CxSyntheticCamera::CxSyntheticCamera(const SxConfig& config) : CxImageSource(FlagProducesPictures)
{
    setConfig(config);
}

void CxSyntheticCamera::setConfig(const SxConfig& config)
{
    m_config = config;
    if (m_config.dataType != IDT_UINT16)
        m_config.dataType = IDT_UINT8;
    const quint32 typeBits = bytesPerSampleOf(m_config.dataType) * 8;
    if (m_config.bitsPerSample == 0 || m_config.bitsPerSample > typeBits)
        m_config.bitsPerSample = typeBits;
    if (m_config.layout == LayoutBayer && !isTwoByTwoMosaic(m_config.colorFilterArray))
        m_config.colorFilterArray = CFA_BAYER_RGGB;
    setMaxFps(m_config.fps);
    m_next = 0;
}

QString CxSyntheticCamera::title() const { return tr("Synthetic camera"); }

bool CxSyntheticCamera::sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta)
{
    if (m_config.width == 0 || m_config.height == 0) {
        setErrorMessage(tr("The frame size must not be zero"));
        return false;
    }
    info = SxPicBufInfo();
    info.width = m_config.width;
    info.height = m_config.height;
    info.dataType = m_config.dataType;
    info.bitsPerSample = m_config.bitsPerSample;
    info.storageFormat = DSF_PACKED;
    switch (m_config.layout) {
    case LayoutMono: info.channels = 1; break;
    case LayoutBayer:
        info.channels = 1;
        info.colorFilterArray = m_config.colorFilterArray;
        break;
    case LayoutRgb: info.channels = 3; info.isColor = true; break;
    case LayoutRgba: info.channels = 4; info.isColor = true; break;
    }
    info.linePitch = quint32(info.packedLineBytes());
    if (meta) {
        *meta = CxImageMetadata();
        meta->setCameraName(title());
        meta->updateFromPicBufInfo(&info);
        if (info.channels == 3)
            meta->setChannelNames({QStringLiteral("R"), QStringLiteral("G"), QStringLiteral("B")});
        else if (info.channels == 4)
            meta->setChannelNames({QStringLiteral("R"), QStringLiteral("G"), QStringLiteral("B"), QStringLiteral("A")});
    }
    return true;
}

void CxSyntheticCamera::renderFrame(const SxConfig& config, qint64 n, SxPicBuf& pic)
{
    if (!pic.data)
        return;
    if (pic.dataType == IDT_UINT16)
        renderT<quint16>(config, n, pic);
    else
        renderT<quint8>(config, n, pic);
}

IxChainData* CxSyntheticCamera::grabFrame()
{
    if (atEnd())
        return nullptr;
    SxPicBufInfo info;
    CxImageMetadata meta;
    if (!sourceFormat(info, &meta))
        return nullptr;
    SxPicBuf pic;
    if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, pic, info, false))
        return nullptr;
    if (!m_clock.isValid())
        m_clock.start();
    renderFrame(m_config, m_next, pic);
    pic.frameNumber = qint32(m_next);
    pic.exposureTimeUs = 1000.f;
    pic.timestampMs = quint32(m_clock.elapsed());
    meta.setTimestamp(QDateTime::currentDateTimeUtc());
    ++m_next;
    auto* packet = new CxImageData;
    packet->setPicBuf(pic);
    packet->setMetadata(&meta);
    packet->setLiveData(true);
    return packet;
}

bool CxSyntheticCamera::atEnd() const
{
    return m_config.frameLimit > 0 && m_next >= m_config.frameLimit;
}
