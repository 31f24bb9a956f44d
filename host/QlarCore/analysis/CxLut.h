#pragma once
#include "QlarCoreExport.h"
#include "ExImageDataType.h"

#include <QtCore/QString>

#include <vector>

struct SxPicBuf;
class CxImageMetadata;

// Look-up tables that stretch a source window over a destination range with
// a gamma, optionally into 8-bit RGB through a pseudo-colour table.
//
// Construction: CxLut(bits, channels, isColor, type) describes the input
// pictures: significant bits per sample (0 = the whole type), samples per
// pixel, whether the channels are colour components, and the sample type.
// Only 8- and 16-bit integer types (signed or unsigned) have tables. The
// colour flag matters for 4-channel pictures: their fourth channel is alpha
// and is passed through (scaled to the output bits) instead of windowed.
// Colour pictures are stored blue, green, red(, alpha), as ConvertPicToRGB
// writes them.
//
// Contrast records (CxCompContrast), one per channel. By default every
// channel uses record 0; setIndependentChannels(true) gives stored channel c
// its own record c. For a sample v of a record:
//     t   = (v - srcMin) / (srcMax - srcMin), clamped to [0, 1]
//           (srcMax <= srcMin: t = 0 for v <= srcMin, else 1)
//     out = dstMin + (dstMax - dstMin) * t^(1 / gamma)
// rounded to nearest and clamped to the output range, so a gamma above 1
// lifts the mid-tones and a gamma of 1 is linear; a gamma that is not a
// positive number counts as 1. dstMin > dstMax inverts the picture. Signed
// samples are windowed by their signed value.
//
// Tables are built by alloc() (same layout out, outputBits bits per sample:
// 8 or fewer bits give 8-bit samples, up to 16 give 16-bit samples) or by
// allocRgb(32) (8-bit 4-channel out, bytes blue, green, red, alpha = 255 in
// memory: QImage::Format_RGB32 on little-endian machines). For allocRgb the
// destination range of the records is ignored: each window spans 0..255.
// A one-channel picture then goes through the pseudo-colour table chosen
// with setPseudoColor (-1, or an index out of range, is plain grey); colour
// pictures keep their components. Changing any other setting after a build
// takes effect at the next alloc()/allocRgb(). Tables cover every value of the
// input type, so samples above full scale saturate and apply() never reads
// outside a table.
//
// apply() may run on several threads at once; it spreads its rows over the
// cores (the kit's row scheduler) and allocates nothing.
class QLARCORE_EXPORT CxLut
{
public:
    struct CxCompContrast
    {
        qint64 srcMin = 0;
        qint64 srcMax = 255;
        double gamma = 1.0;
        qint64 dstMin = 0;
        qint64 dstMax = 255;
    };

    // Pseudo-colour tables, by index.
    enum ExPseudoColor { PseudoGrey = 0, PseudoRainbow = 1, PseudoHot = 2, PseudoViridis = 3 };

    CxLut(unsigned int bits, unsigned int channels, bool isColor, ExImageDataType dataType);
    ~CxLut();
    CxLut(const CxLut&) = delete;
    CxLut& operator=(const CxLut&) = delete;

    // 0, or more bits than the type holds, means the whole type.
    unsigned int inputBits() const { return m_inBits; }
    void setInputBits(unsigned int bits);
    // 8 or fewer bits give 8-bit output samples, up to 16 give 16-bit ones;
    // 0 means the input bits.
    unsigned int outputBits() const { return m_outBits; }
    void setOutputBits(unsigned int bits);
    unsigned int channels() const { return m_channels; }
    void setChannels(unsigned int channels);
    bool isColor() const { return m_isColor; }
    ExImageDataType dataType() const { return m_type; }

    bool independentChannels() const { return m_independent; }
    void setIndependentChannels(bool on) { m_independent = on; }
    // Records exist for every channel (at least one); an index out of range
    // gives record 0. Defaults: the input's full range onto the output's.
    int compContrastCount() const { return int(m_records.size()); }
    CxCompContrast& compContrast(int channel = 0);
    const CxCompContrast& compContrast(int channel = 0) const;

    static int pseudoColorLutCount();
    static QString pseudoColorName(int index);
    // Entry level (0..255) of a pseudo-colour table as 0xAARRGGBB (alpha
    // 255); grey for an index out of range.
    static quint32 pseudoColorEntry(int index, int level);
    int pseudoColor() const { return m_pseudo; }
    // Takes effect at once, on tables already built by allocRgb too.
    void setPseudoColor(int index);

    // Builds the tables; false (and no tables) for an unsupported type,
    // channel count or bit depth.
    bool alloc();
    // Only 32 bits per output pixel is supported; one-, three- and
    // four-channel inputs.
    bool allocRgb(unsigned int bitsPerPixel);
    bool isAllocated() const { return m_built != BuiltNone; }
    bool isRgb() const { return m_built == BuiltRgb; }
    void free();

    // The mapped value of one sample as the built tables give it: the output
    // sample; for allocRgb tables 0xAARRGGBB of a one-channel picture, or the
    // 8-bit level of a colour component. 0 without tables.
    quint32 map(int channel, qint64 value) const;

    // out from in through the tables. False, with out untouched, when the
    // pair is not compatible or a picture has no pixels or misaligned rows.
    bool apply(SxPicBuf* out, const SxPicBuf* in, const CxImageMetadata* metadata) const;
    // Built tables that fit in (type, channels, bits, colour flag) and an out
    // of the same size with the layout the tables write.
    bool isCompatibleWith(const SxPicBuf* out, const SxPicBuf* in) const;

private:
    enum ExBuilt { BuiltNone, BuiltSame, BuiltRgb };
    void resetRecords();
    unsigned inputBytes() const { return bytesPerSampleOf(m_type); }
    quint64 inFullScale() const;
    int recordFor(int channel) const;
    double window01(const CxCompContrast& r, qint64 v) const;

    unsigned m_inBits = 8;
    unsigned m_outBits = 8;
    unsigned m_channels = 1;
    bool m_isColor = false;
    ExImageDataType m_type = IDT_UINT8;
    bool m_independent = false;
    int m_pseudo = -1;
    std::vector<CxCompContrast> m_records;

    ExBuilt m_built = BuiltNone;
    unsigned m_outBytes = 1;
    size_t m_entries = 0;                // table length: every value of the input type
    // One table per stored channel (entries each), in the output sample type
    // (alloc) or as 8-bit levels (allocRgb of colour pictures).
    std::vector<quint8> m_tab8;
    std::vector<quint16> m_tab16;
    std::vector<quint32> m_tab32;        // allocRgb of one-channel pictures: BGRA pixels
    std::vector<quint8> m_levels;        // ... and the 8-bit level behind each pixel
    bool m_sharedTable = false;          // every channel uses table 0 (flat loops)
};
