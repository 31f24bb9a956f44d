#include "CxSyntheticCamera.h"
#include "CxImageData.h"
#include "CxPicBufAPI.h"

#include <QtCore/QDateTime>

#include <QtCore/QList>

#include <algorithm>
#include <climits>
#include <cmath>
#include <map>
#include <mutex>
#include <vector>

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

// Roughly Gaussian noise with unit deviation (the sum of four uniforms),
// drawn from a table per seed: every row of every frame reads the table from
// a position hashed from seed, frame and row. A hash per pixel cost more
// than the rest of a frame; read this way a 4096x3000 frame renders at a
// camera's rate.
constexpr quint32 NoiseTableBits = 16;
constexpr quint32 NoiseTableMask = (1u << NoiseTableBits) - 1;

const float* noiseTable(quint32 seed)
{
    static std::mutex lock;
    static std::map<quint32, std::vector<float>> tables;
    std::lock_guard<std::mutex> guard(lock);
    std::vector<float>& table = tables[seed];
    if (table.empty()) {
        table.resize(size_t(NoiseTableMask) + 1);
        quint32 h = mix(seed ^ 0x5bd1e995U);
        for (float& v : table) {
            float sum = 0.f;
            for (int i = 0; i < 4; ++i) {
                h = mix(h + 0x632be5abU);
                sum += float(h & 0xffff) / 65535.f;
            }
            v = (sum - 2.f) * 1.7320508f;  // variance of the sum is 4/12
        }
    }
    return table.data();
}

// Where row y of frame n starts reading the table.
inline quint32 noiseOffset(quint32 seed, qint64 n, quint32 y)
{
    return mix(seed ^ mix(quint32(n) * 0x9e3779b9U ^ mix(y + 0x27d4eb2fU)));
}

struct Rgb
{
    float r, g, b;
    float nir;  // near infrared, seen only by mosaic layouts
};

// The scene, in [0, 1] per colour: ramps, bars sliding one pixel per frame
// and a disc circling the centre. What depends only on the frame is worked
// out once.
struct SxScene
{
    quint32 w, h;
    qint64 n;
    float cx, cy, radius2;

    SxScene(quint32 width, quint32 height, qint64 frame) : w(std::max<quint32>(width, 1)), h(std::max<quint32>(height, 1)), n(frame)
    {
        const float angle = float(n) * 0.1f;
        cx = 0.5f * width + 0.25f * width * std::cos(angle);
        cy = 0.5f * height + 0.25f * height * std::sin(angle);
        const float radius = 0.125f * float(std::min(width, height));
        radius2 = radius * radius;
    }

    Rgb at(quint32 x, quint32 y) const
    {
        const float fx = float(x) / float(w);
        const float fy = float(y) / float(h);
        const float bars = (((x + quint64(n)) >> 4) & 1) ? 0.3f : 0.f;
        const float dx = float(x) - cx, dy = float(y) - cy;
        const float disc = (dx * dx + dy * dy <= radius2) ? 0.4f : 0.f;
        // The disc glows in the near infrared and the bars barely show there,
        // so that a NIR band looks different from every colour.
        return Rgb{0.15f + 0.45f * fx + disc, 0.15f + 0.3f * fy + bars, 0.1f + 0.3f * (1.f - fx) + disc * 0.5f,
                   0.2f + 0.3f * fy + 1.25f * disc + 0.2f * bars};
    }
};

// What one mosaic cell sees: a weighted sum of the scene's components.
struct SxBandWeights
{
    float r = 0.3f, g = 0.59f, b = 0.11f, nir = 0.f;  // default: unfiltered luminance
    float of(const Rgb& c) const { return r * c.r + g * c.g + b * c.b + nir * c.nir; }
};

SxBandWeights bandWeights(const CxHsiCameraParams::CxBand& band)
{
    SxBandWeights w;
    const QString name = band.ownName();
    if (name == QLatin1String("R") || name == QLatin1String("G") || name == QLatin1String("B")
        || name == QLatin1String("NIR")) {
        w.r = name == QLatin1String("R") ? 1.f : 0.f;
        w.g = name == QLatin1String("G") ? 1.f : 0.f;
        w.b = name == QLatin1String("B") ? 1.f : 0.f;
        w.nir = name == QLatin1String("NIR") ? 1.f : 0.f;
        return w;
    }
    const float l = float(band.wavelengthNm());
    const auto bump = [l](float centre, float width) {
        const float d = (l - centre) / width;
        return std::exp(-0.5f * d * d);
    };
    w.r = bump(610.f, 40.f);
    w.g = bump(540.f, 35.f);
    w.b = bump(465.f, 30.f);
    w.nir = 1.f / (1.f + std::exp(-(l - 720.f) / 20.f));
    return w;
}

struct SxZoneModel
{
    qint64 left = 0, top = 0, right = -1, bottom = -1;  // inclusive, clipped to the sensor
    int patternWidth = 1, patternHeight = 1, cellWidth = 1, cellHeight = 1;
    QList<SxBandWeights> bands;  // pattern order
};

// The description reduced to what rendering needs, worked out once per frame.
QList<SxZoneModel> zoneModels(const CxHsiCameraParams& hsi, quint32 w, quint32 h)
{
    QList<SxZoneModel> zones;
    if (!hsi.isValid())
        return zones;
    for (const CxHsiCameraParams::CxFilterZone& z : hsi.filterZones()) {
        SxZoneModel m;
        const QRect r = z.sensorRect(int(std::min<quint32>(w, INT_MAX)), int(std::min<quint32>(h, INT_MAX)));
        m.left = std::max(r.left(), 0);
        m.top = std::max(r.top(), 0);
        m.right = std::min<qint64>(r.right(), qint64(w) - 1);
        m.bottom = std::min<qint64>(r.bottom(), qint64(h) - 1);
        m.patternWidth = z.patternWidth;
        m.patternHeight = z.patternHeight;
        m.cellWidth = z.cellWidth;
        m.cellHeight = z.cellHeight;
        for (const CxHsiCameraParams::CxBand& band : z.bands)
            m.bands.append(bandWeights(band));
        zones.append(m);
    }
    return zones;
}

// The first zone that covers the pixel decides; pixels outside every zone see
// the scene unfiltered.
SxBandWeights mosaicWeights(const QList<SxZoneModel>& zones, quint32 x, quint32 y)
{
    for (const SxZoneModel& z : zones) {
        if (qint64(x) < z.left || qint64(x) > z.right || qint64(y) < z.top || qint64(y) > z.bottom)
            continue;
        const qint64 col = ((qint64(x) - z.left) / z.cellWidth) % z.patternWidth;
        const qint64 row = ((qint64(y) - z.top) / z.cellHeight) % z.patternHeight;
        const qint64 band = row * z.patternWidth + col;
        return band < z.bands.size() ? z.bands.at(band) : SxBandWeights();
    }
    return SxBandWeights();
}

bool isDescribedMosaic(CxSyntheticCamera::ExLayout layout)
{
    return layout == CxSyntheticCamera::LayoutRgbNir || layout == CxSyntheticCamera::LayoutHsi;
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
    QList<SxZoneModel> zones;
    if (isDescribedMosaic(cfg.layout))
        zones = zoneModels(CxSyntheticCamera::mosaicDescription(cfg), w, h);
    const SxScene sceneOf(w, h, n);
    // Noise per colour channel: channel c reads the table of seed + c.
    const float* tables[3] = {noiseTable(cfg.seed), nullptr, nullptr};
    if (cfg.layout == CxSyntheticCamera::LayoutRgb || cfg.layout == CxSyntheticCamera::LayoutRgba) {
        tables[1] = noiseTable(cfg.seed + 1);
        tables[2] = noiseTable(cfg.seed + 2);
    }
    std::vector<float> values(static_cast<size_t>(w));
    for (quint32 y = 0; y < h; ++y) {
        T* row = pic.row<T>(y);
        // Scene values of the row for one colour channel, then noise and
        // rounding in a loop of their own, which the compiler vectorises.
        const auto finish = [&](quint32 c, quint32 stride, quint32 first) {
            const float* table = tables[c];
            const quint32 offset = noiseOffset(cfg.seed + c, n, y);
            for (quint32 x = 0; x < w; ++x) {
                float v = values[x] * full + sigma * table[(offset + x) & NoiseTableMask];
                v = std::min(std::max(v, 0.f), full);
                row[size_t(x) * stride + first] = T(v + 0.5f);
            }
        };
        switch (cfg.layout) {
        case CxSyntheticCamera::LayoutMono:
            for (quint32 x = 0; x < w; ++x) {
                const Rgb c = sceneOf.at(x, y);
                values[x] = 0.3f * c.r + 0.59f * c.g + 0.11f * c.b;
            }
            finish(0, 1, 0);
            break;
        case CxSyntheticCamera::LayoutBayer:
            for (quint32 x = 0; x < w; ++x)
                values[x] = cellValue(cfg.colorFilterArray, x, y, sceneOf.at(x, y));
            finish(0, 1, 0);
            break;
        case CxSyntheticCamera::LayoutRgb:
        case CxSyntheticCamera::LayoutRgba:
            // Blue first, as every colour picture of the host.
            for (quint32 c = 0; c < 3; ++c) {
                for (quint32 x = 0; x < w; ++x) {
                    const Rgb s = sceneOf.at(x, y);
                    values[x] = c == 0 ? s.r : c == 1 ? s.g : s.b;
                }
                finish(c, ch, 2 - c);
            }
            if (ch == 4)
                for (quint32 x = 0; x < w; ++x)
                    row[size_t(x) * 4 + 3] = T(full);
            break;
        case CxSyntheticCamera::LayoutRgbNir:
        case CxSyntheticCamera::LayoutHsi:
            for (quint32 x = 0; x < w; ++x)
                values[x] = mosaicWeights(zones, x, y).of(sceneOf.at(x, y));
            finish(0, 1, 0);
            break;
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
    if (isDescribedMosaic(m_config.layout))
        m_config.colorFilterArray = CFA_HSI_MOSAIC;
    else
        m_config.hsi.clear();
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
    case LayoutRgbNir:
    case LayoutHsi:
        info.channels = 1;
        info.colorFilterArray = CFA_HSI_MOSAIC;
        break;
    }
    info.linePitch = quint32(info.packedLineBytes());
    if (meta) {
        *meta = CxImageMetadata();
        meta->setCameraName(title());
        meta->updateFromPicBufInfo(&info);
        if (isDescribedMosaic(m_config.layout))
            meta->setHsiCameraParams(mosaicDescription(m_config));
    }
    return true;
}

CxHsiCameraParams CxSyntheticCamera::mosaicDescription(const SxConfig& config)
{
    if (!isDescribedMosaic(config.layout))
        return CxHsiCameraParams();
    if (!config.hsi.isEmpty())
        return config.hsi;
    if (config.layout == LayoutRgbNir)
        return CxHsiCameraParams::standardRgbNir();
    return builtInHsiDescription(config.width, config.height);
}

CxHsiCameraParams CxSyntheticCamera::builtInHsiDescription(quint32 width, quint32 height)
{
    // Pattern positions get their wavelengths in a scrambled order, as on
    // real sensors, so that wavelength order and pattern order differ.
    const auto makeZone = [](int pattern, double firstNm, double stepNm, int scramble) {
        CxHsiCameraParams::CxFilterZone z;
        z.patternWidth = pattern;
        z.patternHeight = pattern;
        const int count = pattern * pattern;
        for (int i = 0; i < count; ++i) {
            const double nm = firstNm + stepNm * ((i * scramble) % count);
            z.bands.append(CxHsiCameraParams::CxBand(QStringLiteral("%1 nm").arg(nm), nm));
        }
        return z;
    };
    CxHsiCameraParams::CxFilterZone visible = makeZone(4, 460.0, 15.0, 5);
    CxHsiCameraParams::CxFilterZone nearInfrared = makeZone(3, 650.0, 40.0, 4);

    const quint64 w0 = quint64(width) / 2 / 4 * 4;
    const quint64 h0 = quint64(height) / 4 * 4;
    const quint64 w1 = (quint64(width) - w0) / 3 * 3;
    const quint64 h1 = quint64(height) / 3 * 3;
    CxHsiCameraParams hsi;
    // QRect holds ints; larger sensors than that are not simulated anyway.
    if (w0 < 4 || w1 < 3 || h0 < 4 || width > quint32(INT_MAX) || height > quint32(INT_MAX)) {
        hsi.addFilterZone(visible);  // default rectangle: inverted, the whole sensor
        return hsi;
    }
    visible.rect = QRect(0, 0, int(w0), int(h0));
    nearInfrared.rect = QRect(int(w0), 0, int(w1), int(h1));
    hsi.addFilterZone(visible);
    hsi.addFilterZone(nearInfrared);
    return hsi;
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
