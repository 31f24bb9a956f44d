#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QList>
#include <QtCore/QRect>
#include <QtCore/QString>

class QDomDocument;
class QDomElement;

// Description of a snapshot mosaic sensor: one or more filter zones, each a
// rectangle of the sensor covered by a repeating pattern of band cells.
// A default-constructed object describes nothing and is not valid.
//
// Geometry of a zone. The pattern is patternWidth x patternHeight bands; each
// band occupies a cell of cellWidth x cellHeight sensor pixels, so one
// hyperpixel (one repetition of the pattern) is patternWidth * cellWidth
// pixels wide and patternHeight * cellHeight pixels high. Band b of the zone
// sits in pattern column b % patternWidth and pattern row b / patternWidth.
// The zone rectangle has inclusive corners; an inverted rectangle (right <
// left or bottom < top, as a default QRect is) means "the whole sensor".
//
// Saved form (an element of its own, inside a chain document, a camera
// description file or an image file):
//
//   <HsiCameraParams version="1">
//     <FilterZone left="0" top="0" right="1023" bottom="1023"
//                 patternWidth="4" patternHeight="4" cellWidth="1" cellHeight="1">
//       <Band name="B01" wavelength="465.5"/>
//       ... patternWidth x patternHeight bands in pattern order
//     </FilterZone>
//   </HsiCameraParams>
//
// A zone without the four corner attributes covers the whole sensor. Unknown
// elements and attributes are ignored so that newer files still load; a
// missing or non-numeric required attribute, a value out of range or a band
// count that does not fill the pattern is an error that names its line, and
// leaves the object empty. A zone may reach past any real sensor (corners up
// to the int range, left and top not negative): the description says
// nothing of the frames it will meet, so the loader does not guess a largest
// sensor. Whatever meets a frame sizes its work from the part of the zone
// inside that frame, and output formats that the zone fixes (Extract
// Channel, Mosaic Filter) are refused by the pool when too large.
class QLARCORE_EXPORT CxHsiCameraParams
{
public:
    // XML names, defined once for save and load.
    static const char* const ElementName;       // "HsiCameraParams"
    static const char* const ZoneElement;       // "FilterZone"
    static const char* const BandElement;       // "Band"
    static const char* const VersionAttribute;  // "version"

    // Upper bounds accepted for pattern and cell sizes; larger values are
    // taken as a corrupt description rather than a real sensor.
    static constexpr int MaxPatternSize = 256;
    static constexpr int MaxCellSize = 1024;

    class QLARCORE_EXPORT CxBand
    {
    public:
        CxBand() = default;
        CxBand(const QString& name, double wavelengthNm) : m_name(name), m_wavelengthNm(wavelengthNm) {}
        // Display name: the band's own name; an unnamed band is called by its
        // wavelength ("712.5 nm"), and is nameless only without either.
        QString name() const;
        // The name exactly as described (empty for an unnamed band).
        QString ownName() const { return m_name; }
        double wavelengthNm() const { return m_wavelengthNm; }
        bool operator==(const CxBand& o) const { return m_name == o.m_name && m_wavelengthNm == o.m_wavelengthNm; }
        bool operator!=(const CxBand& o) const { return !(*this == o); }

    private:
        QString m_name;
        double m_wavelengthNm = 0.0;
    };

    // Bands are listed in pattern order: row by row through one pattern cell
    // of patternWidth x patternHeight bands.
    class QLARCORE_EXPORT CxFilterZone
    {
    public:
        QRect rect;             // sensor pixels covered, inclusive corners; inverted = whole sensor
        int patternWidth = 0;   // bands per pattern row (horizontal period in bands)
        int patternHeight = 0;  // band rows per pattern (vertical period in bands)
        int cellWidth = 1;      // pixels of one band cell
        int cellHeight = 1;
        QList<CxBand> bands;

        // Pattern and cell sizes positive and within the bounds above, the
        // pattern filled with bands, and a rectangle that is inverted or
        // starts inside the sensor (left, top >= 0).
        bool isValid() const;
        bool coversWholeSensor() const { return rect.right() < rect.left() || rect.bottom() < rect.top(); }
        // The pixels covered on a sensor of the given size (not clipped).
        QRect sensorRect(int sensorWidth, int sensorHeight) const
        {
            return coversWholeSensor() ? QRect(0, 0, sensorWidth, sensorHeight) : rect;
        }
        int hyperpixelWidth() const { return patternWidth * cellWidth; }
        int hyperpixelHeight() const { return patternHeight * cellHeight; }
        // Indices into bands ordered by wavelength (ascending, or descending
        // when requested); equal wavelengths keep pattern order.
        QList<int> sortedBandIdxs(bool descending) const;
        // Index of the first band whose display name is exactly name; -1 if none.
        int bandIndexByName(const QString& name) const;
        bool operator==(const CxFilterZone& o) const;
        bool operator!=(const CxFilterZone& o) const { return !(*this == o); }
    };

    struct SxBandIdx
    {
        int zone = -1;  // index of the filter zone
        int band = -1;  // index of the band within that zone
    };

    CxHsiCameraParams() = default;

    QList<CxFilterZone> filterZones() const { return m_zones; }
    int filterZoneCount() const { return int(m_zones.size()); }
    // Null when idx is out of range.
    const CxFilterZone* filterZone(int idx) const;
    void setFilterZones(const QList<CxFilterZone>& zones) { m_zones = zones; }
    void addFilterZone(const CxFilterZone& zone) { m_zones.append(zone); }
    void clear() { m_zones.clear(); }
    bool isEmpty() const { return m_zones.isEmpty(); }

    // At least one zone, every zone valid.
    bool isValid() const;
    // A valid description with one zone of single-pixel cells that starts at
    // the sensor origin (or covers the whole sensor): the mosaic is a plain
    // repeating pattern that splits into band planes by strides alone, and
    // planes woven back at x * patternWidth, y * patternHeight land where
    // they came from.
    bool isSimpleMosaicFilter() const;
    // A valid description whose first zone is a 2 x 2 pattern of single
    // pixels with bands named "R", "G", "B" and "NIR" (in any position).
    bool isRgbNirCamera() const;
    // Kept for callers that only know the camera kind: true turns a
    // description that is not yet an RGB-NIR camera into standardRgbNir();
    // false empties a description that is one.
    void setRgbNirCamera(bool on);
    // The usual RGB-NIR layout over the whole sensor: NIR, B / R, G.
    static CxHsiCameraParams standardRgbNir();

    // Pattern size of the first zone ("bands across x bands down"); 0 without zones.
    int bandsAcross() const { return m_zones.isEmpty() ? 0 : m_zones.first().patternWidth; }
    int bandsDown() const { return m_zones.isEmpty() ? 0 : m_zones.first().patternHeight; }

    int totalBandCountInAllZones() const;
    // The zone that holds the band with overall index totalIdx (bands counted
    // zone by zone, each zone in its pattern order); null when out of range,
    // negative included. idx, when given, is filled on success and reset to
    // -1/-1 on failure.
    const CxFilterZone* filterZoneWithTotalBandIdx(int totalIdx, SxBandIdx* idx) const;

    // --- saved form ---
    // Appends an HsiCameraParams element to parent (an empty description
    // writes an element without zones).
    bool saveToXml(QDomDocument& doc, QDomElement& parent) const;
    // Reads the HsiCameraParams element that is element itself or its first
    // such child. No such element: the description becomes empty and the
    // answer is true (nothing was carried). On failure the description is
    // empty and *error (when given) tells the line and what is wrong.
    bool loadFromXml(const QDomElement& element, QString* error);
    // A standalone document whose root is the HsiCameraParams element.
    QString toXmlString() const;
    bool fromXmlString(const QString& xml, QString* error);
    bool saveToFile(const QString& path, QString* error) const;
    bool loadFromFile(const QString& path, QString* error);

    bool operator==(const CxHsiCameraParams& o) const { return m_zones == o.m_zones; }
    bool operator!=(const CxHsiCameraParams& o) const { return !(*this == o); }

private:
    QList<CxFilterZone> m_zones;
};
