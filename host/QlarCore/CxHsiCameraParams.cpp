#include "CxHsiCameraParams.h"

#include <algorithm>
#include <numeric>

bool CxHsiCameraParams::CxFilterZone::isValid() const
{
    return patternWidth > 0 && patternHeight > 0 && cellWidth > 0 && cellHeight > 0
        && bands.size() == qsizetype(patternWidth) * patternHeight && rect.isValid();
}

QList<int> CxHsiCameraParams::CxFilterZone::sortedBandIdxs(bool descending) const
{
    QList<int> idx(bands.size());
    std::iota(idx.begin(), idx.end(), 0);
    std::stable_sort(idx.begin(), idx.end(), [&](int a, int b) {
        return descending ? bands[a].wavelengthNm() > bands[b].wavelengthNm()
                          : bands[a].wavelengthNm() < bands[b].wavelengthNm();
    });
    return idx;
}

bool CxHsiCameraParams::CxFilterZone::operator==(const CxFilterZone& o) const
{
    return rect == o.rect && patternWidth == o.patternWidth && patternHeight == o.patternHeight
        && cellWidth == o.cellWidth && cellHeight == o.cellHeight && bands == o.bands;
}

bool CxHsiCameraParams::isValid() const
{
    if (m_zones.isEmpty())
        return false;
    return std::all_of(m_zones.begin(), m_zones.end(), [](const CxFilterZone& z) { return z.isValid(); });
}

bool CxHsiCameraParams::isSimpleMosaicFilter() const
{
    return isValid() && m_zones.size() == 1 && m_zones.first().cellWidth == 1 && m_zones.first().cellHeight == 1;
}

int CxHsiCameraParams::totalBandCountInAllZones() const
{
    int n = 0;
    for (const CxFilterZone& z : m_zones)
        n += int(z.bands.size());
    return n;
}

const CxHsiCameraParams::CxFilterZone* CxHsiCameraParams::filterZoneWithTotalBandIdx(int totalIdx, SxBandIdx* idx) const
{
    if (totalIdx < 0)
        return nullptr;
    int first = 0;
    for (int z = 0; z < m_zones.size(); ++z) {
        const int n = int(m_zones[z].bands.size());
        if (totalIdx < first + n) {
            if (idx) {
                idx->zone = z;
                idx->band = totalIdx - first;
            }
            return &m_zones[z];
        }
        first += n;
    }
    return nullptr;
}
