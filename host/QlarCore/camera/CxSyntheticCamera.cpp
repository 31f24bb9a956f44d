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

// The scene, in [0, 1] per component: ramps, bars sliding one pixel per
// frame and a disc circling the centre. The disc glows in the near infrared
// and the bars barely show there, so that a NIR band looks different from
// every colour:
//   red   = 0.15 + 0.45 fx + disc         green = 0.15 + 0.3 fy + bars
//   blue  = 0.1 + 0.3 (1 - fx) + disc / 2  nir  = 0.2 + 0.3 fy + 1.25 disc + 0.2 bars
// with fx, fy the position in [0, 1), bars 0.3 on every other run of 16
// columns and disc 0.4 inside it. A sample sees a weighted sum of the four,
// so a row is a few terms per column (worked out once per frame or row
// class) plus two per row; the disc is a span per row.
struct SxScene
{
    quint32 w, h;
    float cx, cy, radius2;
    std::vector<float> red, blue, bars;  // the terms that depend on the column

    SxScene(quint32 width, quint32 height, qint64 n)
        : w(width), h(height), red(w), blue(w), bars(w)
    {
        const float angle = float(n) * 0.1f;
        cx = 0.5f * width + 0.25f * width * std::cos(angle);
        cy = 0.5f * height + 0.25f * height * std::sin(angle);
        const float radius = 0.125f * float(std::min(width, height));
        radius2 = radius * radius;
        for (quint32 x = 0; x < w; ++x) {
            const float fx = float(x) / float(w);
            red[x] = 0.15f + 0.45f * fx;
            blue[x] = 0.1f + 0.3f * (1.f - fx);
            bars[x] = (((x + quint64(n)) >> 4) & 1) ? 0.3f : 0.f;
        }
    }

    float green(quint32 y) const { return 0.15f + 0.3f * float(y) / float(h); }
    float nir(quint32 y) const { return 0.2f + 0.3f * float(y) / float(h); }

    // Columns [first, last) of row y inside the disc.
    void discSpan(quint32 y, quint32& first, quint32& last) const
    {
        first = last = 0;
        const double dy = double(y) - cy;
        const double rest = double(radius2) - dy * dy;
        if (rest < 0.0)
            return;
        const double half = std::sqrt(rest);
        const double a = std::max(0.0, std::ceil(cx - half));
        const double b = std::min(double(w), std::floor(cx + half) + 1.0);
        if (b > a) {
            first = quint32(a);
            last = quint32(b);
        }
    }
};

// What one mosaic cell sees: a weighted sum of the scene's components.
struct SxBandWeights
{
    float r = 0.3f, g = 0.59f, b = 0.11f, nir = 0.f;  // default: unfiltered luminance
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

// What the cell of a 2x2 mosaic at (x, y) passes. Cyan, magenta and yellow
// cells hold the mean of the two primaries they pass.
SxBandWeights cellWeights(ExColorFilterArray cfa, quint32 x, quint32 y)
{
    const int cell = int(((y & 1) << 1) | (x & 1));
    // Cell colours row by row for each 2x2 pattern: 0 red, 1 green, 2 blue,
    // 3 cyan, 4 magenta, 5 yellow.
    static const int table[7][4] = {{1, 1, 1, 1}, {0, 1, 1, 2}, {1, 0, 2, 1}, {1, 2, 0, 1},
                                    {2, 1, 1, 0}, {3, 4, 5, 1}, {0, 1, 2, 0}};
    const int k = (cfa >= CFA_BAYER_RGGB && cfa <= CFA_RGBR) ? table[cfa][cell] : 1;
    static const SxBandWeights colours[6] = {{1.f, 0.f, 0.f, 0.f},   {0.f, 1.f, 0.f, 0.f},
                                             {0.f, 0.f, 1.f, 0.f},   {0.f, .5f, .5f, 0.f},
                                             {.5f, 0.f, .5f, 0.f},   {.5f, .5f, 0.f, 0.f}};
    return colours[k];
}

// One row's column terms for the weights the row's samples see (see SxScene):
// value = base + green(y) * kGreen + nir(y) * kNir, plus kDisc inside the disc.
struct SxRowTerms
{
    std::vector<float> base, kGreen, kNir, kDisc;

    template <class WeightsAt> void build(const SxScene& scene, WeightsAt&& weightsAt)
    {
        const quint32 w = scene.w;
        base.resize(w);
        kGreen.resize(w);
        kNir.resize(w);
        kDisc.resize(w);
        for (quint32 x = 0; x < w; ++x) {
            const SxBandWeights k = weightsAt(x);
            base[x] = k.r * scene.red[x] + k.b * scene.blue[x] + (k.g + 0.2f * k.nir) * scene.bars[x];
            kGreen[x] = k.g;
            kNir[x] = k.nir;
            kDisc[x] = 0.4f * (k.r + 0.5f * k.b + 1.25f * k.nir);
        }
    }

    void row(const SxScene& scene, quint32 y, float* values) const
    {
        const float g = scene.green(y), nir = scene.nir(y);
        const float* b = base.data();
        const float* kg = kGreen.data();
        const float* kn = kNir.data();
        const quint32 w = scene.w;
#pragma omp simd
        for (quint32 x = 0; x < w; ++x)
            values[x] = b[x] + g * kg[x] + nir * kn[x];
        quint32 first, last;
        scene.discSpan(y, first, last);
        const float* kd = kDisc.data();
#pragma omp simd
        for (quint32 x = first; x < last; ++x)
            values[x] += kd[x];
    }
};

// Adds noise and rounds, `Channels` samples a pixel with channel c at
// position Channels - 1 - c (blue first, as every colour picture of the
// host) and alpha, if any, at full scale. Channel c reads its noise table
// from offsets[c] on, wrapping, in runs that need no wrap inside them so that
// they vectorise.
template <quint32 Channels, class T>
void quantizeRow(T* out, const float* const* values, quint32 w, const float* const* tables, const quint32* offsets,
                 float full, float sigma)
{
    constexpr quint32 Colours = Channels == 1 ? 1 : 3;
    const auto sample = [full, sigma](float v, float noise) {
        return T(std::min(std::max(v * full + sigma * noise, 0.f), full) + 0.5f);
    };
    for (quint32 x = 0; x < w;) {
        quint32 run = w - x;
        const float* v[Colours];
        const float* noise[Colours];
        for (quint32 c = 0; c < Colours; ++c) {
            const quint32 at = (offsets[c] + x) & NoiseTableMask;
            run = std::min(run, NoiseTableMask + 1 - at);
            v[c] = values[c] + x;
            noise[c] = tables[c] + at;
        }
        T* __restrict o = out + size_t(x) * Channels;
        if constexpr (Channels == 1) {
            const float* __restrict v0 = v[0];
            const float* __restrict n0 = noise[0];
#pragma omp simd
            for (quint32 i = 0; i < run; ++i)
                o[i] = sample(v0[i], n0[i]);
        } else {
            const float* __restrict v0 = v[0];
            const float* __restrict v1 = v[1];
            const float* __restrict v2 = v[2];
            const float* __restrict n0 = noise[0];
            const float* __restrict n1 = noise[1];
            const float* __restrict n2 = noise[2];
#pragma omp simd
            for (quint32 i = 0; i < run; ++i) {
                o[size_t(i) * Channels + 2] = sample(v0[i], n0[i]);
                o[size_t(i) * Channels + 1] = sample(v1[i], n1[i]);
                o[size_t(i) * Channels] = sample(v2[i], n2[i]);
                if constexpr (Channels == 4)
                    o[size_t(i) * Channels + 3] = T(full);
            }
        }
        x += run;
    }
}

template <class T>
void renderT(const CxSyntheticCamera::SxConfig& cfg, qint64 n, SxPicBuf& pic)
{
    const float full = float((quint64(1) << std::min<quint32>(cfg.bitsPerSample, sizeof(T) * 8)) - 1);
    const float sigma = float(cfg.noiseSigma) * full / 255.f;
    const quint32 w = pic.width, h = pic.height, ch = pic.channels;
    const SxScene scene(w, h, n);
    // Noise per colour channel: channel c reads the table of seed + c.
    const float* tables[3] = {noiseTable(cfg.seed), nullptr, nullptr};
    const bool colour = cfg.layout == CxSyntheticCamera::LayoutRgb || cfg.layout == CxSyntheticCamera::LayoutRgba;
    if (colour) {
        tables[1] = noiseTable(cfg.seed + 1);
        tables[2] = noiseTable(cfg.seed + 2);
    }
    // Rows that see the same weights share their terms: one class for mono,
    // one per row parity for a 2x2 mosaic, one per channel for colour; a
    // described mosaic works its terms out row by row.
    QList<SxZoneModel> zones;
    std::vector<SxRowTerms> classes;
    switch (cfg.layout) {
    case CxSyntheticCamera::LayoutMono:
        classes.resize(1);
        classes[0].build(scene, [](quint32) { return SxBandWeights(); });
        break;
    case CxSyntheticCamera::LayoutBayer:
        classes.resize(2);
        for (quint32 parity = 0; parity < 2; ++parity)
            classes[parity].build(scene, [&](quint32 x) { return cellWeights(cfg.colorFilterArray, x, parity); });
        break;
    case CxSyntheticCamera::LayoutRgb:
    case CxSyntheticCamera::LayoutRgba:
        classes.resize(3);
        classes[0].build(scene, [](quint32) { return SxBandWeights{1.f, 0.f, 0.f, 0.f}; });
        classes[1].build(scene, [](quint32) { return SxBandWeights{0.f, 1.f, 0.f, 0.f}; });
        classes[2].build(scene, [](quint32) { return SxBandWeights{0.f, 0.f, 1.f, 0.f}; });
        break;
    case CxSyntheticCamera::LayoutRgbNir:
    case CxSyntheticCamera::LayoutHsi:
        zones = zoneModels(CxSyntheticCamera::mosaicDescription(cfg), w, h);
        break;
    }
    // A described mosaic's row sees, per zone, either nothing of it or one
    // row of its pattern; rows alike in that share their terms.
    std::map<std::vector<qint64>, SxRowTerms> mosaicRows;
    const auto mosaicRow = [&](quint32 y) -> const SxRowTerms& {
        std::vector<qint64> key;
        for (const SxZoneModel& z : zones)
            key.push_back(qint64(y) < z.top || qint64(y) > z.bottom
                              ? -1
                              : ((qint64(y) - z.top) / z.cellHeight) % z.patternHeight);
        auto found = mosaicRows.find(key);
        if (found == mosaicRows.end()) {
            found = mosaicRows.emplace(std::move(key), SxRowTerms()).first;
            found->second.build(scene, [&](quint32 x) { return mosaicWeights(zones, x, y); });
        }
        return found->second;
    };
    std::vector<float> values(static_cast<size_t>(w) * (colour ? 3 : 1));
    float* rows[3] = {values.data(), values.data() + (colour ? w : 0), values.data() + (colour ? 2 * w : 0)};
    for (quint32 y = 0; y < h; ++y) {
        T* out = pic.row<T>(y);
        quint32 offsets[3];
        for (quint32 c = 0; c < 3; ++c)
            offsets[c] = noiseOffset(cfg.seed + c, n, y);
        switch (cfg.layout) {
        case CxSyntheticCamera::LayoutMono:
        case CxSyntheticCamera::LayoutBayer:
            classes[cfg.layout == CxSyntheticCamera::LayoutBayer ? (y & 1) : 0].row(scene, y, rows[0]);
            quantizeRow<1>(out, rows, w, tables, offsets, full, sigma);
            break;
        case CxSyntheticCamera::LayoutRgb:
        case CxSyntheticCamera::LayoutRgba:
            for (quint32 c = 0; c < 3; ++c)
                classes[c].row(scene, y, rows[c]);
            if (ch == 4)
                quantizeRow<4>(out, rows, w, tables, offsets, full, sigma);
            else
                quantizeRow<3>(out, rows, w, tables, offsets, full, sigma);
            break;
        case CxSyntheticCamera::LayoutRgbNir:
        case CxSyntheticCamera::LayoutHsi: {
            const SxRowTerms& terms = mosaicRow(y);
            terms.row(scene, y, rows[0]);
            quantizeRow<1>(out, rows, w, tables, offsets, full, sigma);
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
