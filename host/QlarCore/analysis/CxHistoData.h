#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QFlags>

#include <vector>

// Histogram and per-channel statistics of a picture, filled by
// CxPicBufMeas::measureHistogram.
//
// Channels. One record per measured channel. Mono and mosaic pictures give
// one channel (all samples together) unless HDF_PerMosaicCell asks for one
// record per mosaic cell. Colour pictures are stored blue, green, red(, alpha)
// in memory; their records are in red, green, blue order, i.e. record c holds
// stored sample 2 - c, and an alpha channel is not measured. A picture counts
// as colour when it has 3 channels, or 4 interleaved channels with the isColor
// flag and 8- or 16-bit samples. Every other layout gives one record per
// stored channel in storage order.
//
// Bins. All channels share one bin count and one bin shift: bin b holds the
// samples v with (v >> binShift) == b.
//  - 8-, 16- and 32-bit integers: bits = bitsPerSample (0, or more than the
//    type holds, means the whole type); binCount = 1 << min(bits, 16),
//    binShift = max(0, bits - 16). Samples above full scale land in the top
//    bin, negative samples of signed types in bin 0.
//  - float: 4096 bins spread evenly over [min, max] of the measured samples
//    (binLow() and binWidth() give the value scale; binShift is 0). NaN and
//    infinite samples are skipped everywhere, statistics included.
// Counters are 64-bit.
//
// Statistics. Five 64-bit floats per channel, indexed by ExStatistic: min,
// max, mean (the channel's level), population standard deviation and the
// number of samples measured. They come from the samples themselves, not
// from the bins, signed values included: exact for 8- and 16-bit samples,
// and for min, max and mean of 32-bit integers; the deviation of 32-bit and
// float samples is computed in extended / double precision.
class QLARCORE_EXPORT CxHistoData
{
public:
    // What a measurement fills. A statistic that was not asked for reads 0;
    // without HDF_Bins the holder has no bins (binCount() is 0). The sample
    // count is always filled.
    enum ExHistoDataFlag {
        HDF_Bins = 0x1,
        HDF_MinMax = 0x2,
        HDF_Mean = 0x4,
        HDF_StdDev = 0x8,
        HDF_All = 0xF,
        // One record per cell of the mosaic instead of one for the picture:
        // 4 records for a 2x2 filter array (cell order row by row), or one
        // per band of the first filter zone of a hyperspectral mosaic (band
        // order; pixels outside the zone are not measured). Ignored for
        // pictures that are not one-channel raw mosaics, and for hyperspectral
        // mosaics without a valid description (measured whole).
        HDF_PerMosaicCell = 0x10
    };
    Q_DECLARE_FLAGS(ExHistoDataFlags, ExHistoDataFlag)

    enum ExStatistic { StatMin = 0, StatMax = 1, StatMean = 2, StatStdDev = 3, StatCount = 4 };
    static constexpr int StatisticsPerChannel = 5;
    static constexpr int FloatBinCount = 4096;

    CxHistoData();
    ~CxHistoData();
    CxHistoData(const CxHistoData&) = default;
    CxHistoData& operator=(const CxHistoData&) = default;

    int channels() const { return m_channels; }
    int binCount() const { return m_binCount; }
    int binShift() const { return m_binShift; }
    ExHistoDataFlags flags() const { return m_flags; }
    bool isEmpty() const { return m_channels == 0; }

    // binCount() counters of a channel; null for a channel out of range or
    // when no bins were measured.
    const quint64* bins(int channel) const;
    // Sum of one channel's bins (samples that were binned).
    quint64 binTotal(int channel) const;
    // Value of the lower edge of bin b (b << binShift for integers).
    double binLow(int bin) const;
    double binWidth() const { return m_isFloat ? m_floatBinWidth : double(quint64(1) << m_binShift); }
    bool isFloat() const { return m_isFloat; }

    // The StatisticsPerChannel values of a channel; null when out of range.
    const double* statistics(int channel) const;
    double statistic(int channel, ExStatistic s) const;
    double level(int channel) const { return statistic(channel, StatMean); }

    // Empties the holder (no channels). Memory is kept for the next measurement.
    void clear();

    // --- filled by the measurement ---
    // Sizes the holder and zeroes bins and statistics; reuses its memory when
    // the shape does not grow.
    void reset(int channels, int binCount, int binShift, ExHistoDataFlags flags);
    quint64* binsForWrite(int channel);
    double* statisticsForWrite(int channel);
    void setFloatScale(double low, double binWidth)
    {
        m_isFloat = true;
        m_floatLow = low;
        m_floatBinWidth = binWidth;
    }

private:
    std::vector<quint64> m_bins;     // channels x binCount
    std::vector<double> m_stats;     // channels x StatisticsPerChannel
    int m_channels = 0;
    int m_binCount = 0;
    int m_binShift = 0;
    ExHistoDataFlags m_flags;
    bool m_isFloat = false;
    double m_floatLow = 0.0;
    double m_floatBinWidth = 0.0;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(CxHistoData::ExHistoDataFlags)
