#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QList>
#include <QtCore/QRect>
#include <QtCore/QString>

// Description of a snapshot mosaic sensor: one or more filter zones, each a
// rectangle of the sensor covered by a repeating pattern of band cells.
// A default-constructed object describes nothing and is not valid.
class QLARCORE_EXPORT CxHsiCameraParams
{
public:
    class QLARCORE_EXPORT CxBand
    {
    public:
        CxBand() = default;
        CxBand(const QString& name, double wavelengthNm) : m_name(name), m_wavelengthNm(wavelengthNm) {}
        QString name() const { return m_name; }
        double wavelengthNm() const { return m_wavelengthNm; }
        bool operator==(const CxBand& o) const { return m_name == o.m_name && m_wavelengthNm == o.m_wavelengthNm; }

    private:
        QString m_name;
        double m_wavelengthNm = 0.0;
    };

    // Bands are listed in pattern order: row by row through one pattern cell
    // of patternWidth x patternHeight bands.
    class QLARCORE_EXPORT CxFilterZone
    {
    public:
        QRect rect;             // sensor pixels covered, inclusive corners
        int patternWidth = 0;   // bands per pattern row
        int patternHeight = 0;  // band rows per pattern
        int cellWidth = 1;      // pixels of one band cell
        int cellHeight = 1;
        QList<CxBand> bands;

        bool isValid() const;
        // Indices into bands ordered by wavelength (ascending, or descending
        // when requested); equal wavelengths keep pattern order.
        QList<int> sortedBandIdxs(bool descending) const;
        bool operator==(const CxFilterZone& o) const;
    };

    struct SxBandIdx
    {
        int zone = -1;  // index of the filter zone
        int band = -1;  // index of the band within that zone
    };

    CxHsiCameraParams() = default;

    QList<CxFilterZone> filterZones() const { return m_zones; }
    void setFilterZones(const QList<CxFilterZone>& zones) { m_zones = zones; }
    void addFilterZone(const CxFilterZone& zone) { m_zones.append(zone); }
    void clear() { m_zones.clear(); m_rgbNir = false; }

    bool isValid() const;
    // One zone whose cells are single pixels: the mosaic is a plain repeating
    // pattern that can be split into planes by strides alone.
    bool isSimpleMosaicFilter() const;
    bool isRgbNirCamera() const { return m_rgbNir && isValid(); }
    void setRgbNirCamera(bool on) { m_rgbNir = on; }
    int totalBandCountInAllZones() const;
    // The zone that holds the band with overall index totalIdx (bands counted
    // zone by zone); null when out of range. idx, when given, is filled.
    const CxFilterZone* filterZoneWithTotalBandIdx(int totalIdx, SxBandIdx* idx) const;

    bool operator==(const CxHsiCameraParams& o) const { return m_zones == o.m_zones && m_rgbNir == o.m_rgbNir; }
    bool operator!=(const CxHsiCameraParams& o) const { return !(*this == o); }

private:
    QList<CxFilterZone> m_zones;
    bool m_rgbNir = false;
};
