#include "CxHistoData.h"

#include <algorithm>

CxHistoData::CxHistoData() = default;
CxHistoData::~CxHistoData() = default;

const quint64* CxHistoData::bins(int channel) const
{
    if (channel < 0 || channel >= m_channels || m_binCount == 0)
        return nullptr;
    return m_bins.data() + size_t(channel) * size_t(m_binCount);
}

quint64 CxHistoData::binTotal(int channel) const
{
    const quint64* b = bins(channel);
    quint64 n = 0;
    for (int i = 0; b && i < m_binCount; ++i)
        n += b[i];
    return n;
}

double CxHistoData::binLow(int bin) const
{
    if (m_isFloat)
        return m_floatLow + double(bin) * m_floatBinWidth;
    return double(qint64(bin) << m_binShift);
}

const double* CxHistoData::statistics(int channel) const
{
    if (channel < 0 || channel >= m_channels)
        return nullptr;
    return m_stats.data() + size_t(channel) * StatisticsPerChannel;
}

double CxHistoData::statistic(int channel, ExStatistic s) const
{
    const double* st = statistics(channel);
    return st && int(s) >= 0 && int(s) < StatisticsPerChannel ? st[s] : 0.0;
}

void CxHistoData::clear()
{
    m_channels = 0;
    m_binCount = 0;
    m_binShift = 0;
    m_flags = {};
    m_isFloat = false;
    m_floatLow = 0.0;
    m_floatBinWidth = 0.0;
}

void CxHistoData::reset(int channels, int binCount, int binShift, ExHistoDataFlags flags)
{
    clear();
    channels = std::max(channels, 0);
    binCount = std::max(binCount, 0);
    m_channels = channels;
    m_binCount = binCount;
    m_binShift = std::max(binShift, 0);
    m_flags = flags;
    // assign() keeps capacity, so a holder measured every frame settles on
    // its memory after the first frame.
    m_bins.assign(size_t(channels) * size_t(binCount), 0);
    m_stats.assign(size_t(channels) * StatisticsPerChannel, 0.0);
}

quint64* CxHistoData::binsForWrite(int channel)
{
    if (channel < 0 || channel >= m_channels || m_binCount == 0)
        return nullptr;
    return m_bins.data() + size_t(channel) * size_t(m_binCount);
}

double* CxHistoData::statisticsForWrite(int channel)
{
    if (channel < 0 || channel >= m_channels)
        return nullptr;
    return m_stats.data() + size_t(channel) * StatisticsPerChannel;
}
