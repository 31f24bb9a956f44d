#include "CxHsiCameraParams.h"
#include "CxAtomicFile.h"
#include "CxXmlReader.h"

#include <QtCore/QFile>
#include <QtXml/QDomDocument>
#include <QtXml/QDomElement>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

const char* const CxHsiCameraParams::ElementName = "HsiCameraParams";
const char* const CxHsiCameraParams::ZoneElement = "FilterZone";
const char* const CxHsiCameraParams::BandElement = "Band";
const char* const CxHsiCameraParams::VersionAttribute = "version";

namespace {
const char* const kLeft = "left";
const char* const kTop = "top";
const char* const kRight = "right";
const char* const kBottom = "bottom";
const char* const kPatternWidth = "patternWidth";
const char* const kPatternHeight = "patternHeight";
const char* const kCellWidth = "cellWidth";
const char* const kCellHeight = "cellHeight";
const char* const kBandName = "name";
const char* const kWavelength = "wavelength";
constexpr int kFormatVersion = 1;

QString at(const QDomElement& e, const QString& what)
{
    return QStringLiteral("line %1: %2").arg(e.lineNumber()).arg(what);
}

// Reads a required integer attribute within [lo, hi].
bool readInt(const QDomElement& e, const char* name, int lo, int hi, int& out, QString& err)
{
    const QString key = QLatin1String(name);
    if (!e.hasAttribute(key)) {
        err = at(e, QStringLiteral("<%1> lacks the attribute \"%2\"").arg(e.tagName(), key));
        return false;
    }
    bool ok = false;
    const QString text = e.attribute(key);
    const int v = text.trimmed().toInt(&ok, 10);
    if (!ok) {
        err = at(e, QStringLiteral("attribute \"%1\" is not an integer: \"%2\"").arg(key, text));
        return false;
    }
    if (v < lo || v > hi) {
        err = at(e, QStringLiteral("attribute \"%1\" = %2 is outside %3..%4").arg(key).arg(v).arg(lo).arg(hi));
        return false;
    }
    out = v;
    return true;
}

bool readZone(const QDomElement& z, CxHsiCameraParams::CxFilterZone& zone, QString& err)
{
    using P = CxHsiCameraParams;
    const bool anyCorner = z.hasAttribute(QLatin1String(kLeft)) || z.hasAttribute(QLatin1String(kTop))
                           || z.hasAttribute(QLatin1String(kRight)) || z.hasAttribute(QLatin1String(kBottom));
    if (anyCorner) {
        int l = 0, t = 0, r = 0, b = 0;
        constexpr int lim = 1 << 30;
        if (!readInt(z, kLeft, -lim, lim, l, err) || !readInt(z, kTop, -lim, lim, t, err)
            || !readInt(z, kRight, -lim, lim, r, err) || !readInt(z, kBottom, -lim, lim, b, err))
            return false;
        zone.rect = QRect(QPoint(l, t), QPoint(r, b));
        if (!zone.coversWholeSensor() && (l < 0 || t < 0)) {
            err = at(z, QStringLiteral("zone rectangle starts outside the sensor (%1, %2)").arg(l).arg(t));
            return false;
        }
    }
    if (!readInt(z, kPatternWidth, 1, P::MaxPatternSize, zone.patternWidth, err)
        || !readInt(z, kPatternHeight, 1, P::MaxPatternSize, zone.patternHeight, err))
        return false;
    // Cell sizes default to single pixels, the common case.
    if (z.hasAttribute(QLatin1String(kCellWidth)) && !readInt(z, kCellWidth, 1, P::MaxCellSize, zone.cellWidth, err))
        return false;
    if (z.hasAttribute(QLatin1String(kCellHeight)) && !readInt(z, kCellHeight, 1, P::MaxCellSize, zone.cellHeight, err))
        return false;

    for (QDomElement b = z.firstChildElement(QLatin1String(P::BandElement)); !b.isNull();
         b = b.nextSiblingElement(QLatin1String(P::BandElement))) {
        double nm = 0.0;
        if (b.hasAttribute(QLatin1String(kWavelength))) {
            bool ok = false;
            const QString text = b.attribute(QLatin1String(kWavelength));
            nm = text.trimmed().toDouble(&ok);
            if (!ok || !std::isfinite(nm) || nm < 0.0) {
                err = at(b, QStringLiteral("band wavelength is not a non-negative number: \"%1\"").arg(text));
                return false;
            }
        }
        zone.bands.append(CxHsiCameraParams::CxBand(b.attribute(QLatin1String(kBandName)), nm));
    }
    const qsizetype want = qsizetype(zone.patternWidth) * zone.patternHeight;
    if (zone.bands.size() != want) {
        err = at(z, QStringLiteral("a %1 x %2 pattern needs %3 bands, the zone lists %4")
                        .arg(zone.patternWidth).arg(zone.patternHeight).arg(want).arg(zone.bands.size()));
        return false;
    }
    return true;
}
} // namespace

QString CxHsiCameraParams::CxBand::name() const
{
    if (!m_name.isEmpty())
        return m_name;
    if (m_wavelengthNm > 0.0)
        return QStringLiteral("%1 nm").arg(m_wavelengthNm, 0, 'g', 6);
    return QString();
}

bool CxHsiCameraParams::CxFilterZone::isValid() const
{
    if (patternWidth < 1 || patternHeight < 1 || patternWidth > MaxPatternSize || patternHeight > MaxPatternSize)
        return false;
    if (cellWidth < 1 || cellHeight < 1 || cellWidth > MaxCellSize || cellHeight > MaxCellSize)
        return false;
    if (bands.size() != qsizetype(patternWidth) * patternHeight)
        return false;
    return coversWholeSensor() || (rect.left() >= 0 && rect.top() >= 0);
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

int CxHsiCameraParams::CxFilterZone::bandIndexByName(const QString& name) const
{
    for (int i = 0; i < bands.size(); ++i)
        if (bands[i].name() == name)
            return i;
    return -1;
}

bool CxHsiCameraParams::CxFilterZone::operator==(const CxFilterZone& o) const
{
    // Every inverted rectangle means the whole sensor, so they compare equal.
    const bool sameRect = coversWholeSensor() ? o.coversWholeSensor() : rect == o.rect;
    return sameRect && patternWidth == o.patternWidth && patternHeight == o.patternHeight
        && cellWidth == o.cellWidth && cellHeight == o.cellHeight && bands == o.bands;
}

const CxHsiCameraParams::CxFilterZone* CxHsiCameraParams::filterZone(int idx) const
{
    return idx >= 0 && idx < m_zones.size() ? &m_zones[idx] : nullptr;
}

bool CxHsiCameraParams::isValid() const
{
    if (m_zones.isEmpty())
        return false;
    return std::all_of(m_zones.begin(), m_zones.end(), [](const CxFilterZone& z) { return z.isValid(); });
}

bool CxHsiCameraParams::isSimpleMosaicFilter() const
{
    if (!isValid() || m_zones.size() != 1)
        return false;
    const CxFilterZone& z = m_zones.first();
    return z.cellWidth == 1 && z.cellHeight == 1
        && (z.coversWholeSensor() || (z.rect.left() == 0 && z.rect.top() == 0));
}

bool CxHsiCameraParams::isRgbNirCamera() const
{
    if (!isValid())
        return false;
    const CxFilterZone& z = m_zones.first();
    if (z.patternWidth != 2 || z.patternHeight != 2 || z.cellWidth != 1 || z.cellHeight != 1)
        return false;
    for (const char* n : {"R", "G", "B", "NIR"})
        if (z.bandIndexByName(QLatin1String(n)) < 0)
            return false;
    return true;
}

void CxHsiCameraParams::setRgbNirCamera(bool on)
{
    if (on == isRgbNirCamera())
        return;
    if (on)
        *this = standardRgbNir();
    else
        clear();
}

CxHsiCameraParams CxHsiCameraParams::standardRgbNir()
{
    CxFilterZone z;
    z.patternWidth = 2;
    z.patternHeight = 2;
    z.bands = {CxBand(QStringLiteral("NIR"), 850.0), CxBand(QStringLiteral("B"), 460.0),
               CxBand(QStringLiteral("R"), 620.0), CxBand(QStringLiteral("G"), 540.0)};
    CxHsiCameraParams p;
    p.addFilterZone(z);
    return p;
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
    if (idx)
        *idx = SxBandIdx();
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

bool CxHsiCameraParams::saveToXml(QDomDocument& doc, QDomElement& parent) const
{
    QDomElement root = doc.createElement(QLatin1String(ElementName));
    root.setAttribute(QLatin1String(VersionAttribute), kFormatVersion);
    for (const CxFilterZone& z : m_zones) {
        QDomElement ze = doc.createElement(QLatin1String(ZoneElement));
        if (!z.coversWholeSensor()) {
            ze.setAttribute(QLatin1String(kLeft), z.rect.left());
            ze.setAttribute(QLatin1String(kTop), z.rect.top());
            ze.setAttribute(QLatin1String(kRight), z.rect.right());
            ze.setAttribute(QLatin1String(kBottom), z.rect.bottom());
        }
        ze.setAttribute(QLatin1String(kPatternWidth), z.patternWidth);
        ze.setAttribute(QLatin1String(kPatternHeight), z.patternHeight);
        ze.setAttribute(QLatin1String(kCellWidth), z.cellWidth);
        ze.setAttribute(QLatin1String(kCellHeight), z.cellHeight);
        for (const CxBand& b : z.bands) {
            QDomElement be = doc.createElement(QLatin1String(BandElement));
            be.setAttribute(QLatin1String(kBandName), b.ownName());
            // 'g' with 17 digits survives the text round trip exactly.
            be.setAttribute(QLatin1String(kWavelength), QString::number(b.wavelengthNm(), 'g', 17));
            ze.appendChild(be);
        }
        root.appendChild(ze);
    }
    if (parent.isNull())
        doc.appendChild(root);
    else
        parent.appendChild(root);
    return true;
}

bool CxHsiCameraParams::loadFromXml(const QDomElement& element, QString* error)
{
    clear();
    const QString rootName = QLatin1String(ElementName);
    const QDomElement root = element.tagName() == rootName ? element : element.firstChildElement(rootName);
    if (root.isNull())
        return true;

    QString err;
    auto fail = [&](const QString& msg) {
        m_zones.clear();
        if (error)
            *error = msg;
        return false;
    };
    if (root.hasAttribute(QLatin1String(VersionAttribute))) {
        int version = 0;
        if (!readInt(root, VersionAttribute, 1, std::numeric_limits<int>::max(), version, err))
            return fail(err);
    }
    QList<CxFilterZone> zones;
    for (QDomElement z = root.firstChildElement(QLatin1String(ZoneElement)); !z.isNull();
         z = z.nextSiblingElement(QLatin1String(ZoneElement))) {
        CxFilterZone zone;
        if (!readZone(z, zone, err))
            return fail(err);
        zones.append(zone);
    }
    m_zones = zones;
    return true;
}

QString CxHsiCameraParams::toXmlString() const
{
    QDomDocument doc;
    doc.appendChild(doc.createProcessingInstruction(QStringLiteral("xml"),
                                                    QStringLiteral("version=\"1.0\" encoding=\"UTF-8\"")));
    QDomElement none;
    saveToXml(doc, none);
    return doc.toString(2);
}

bool CxHsiCameraParams::fromXmlString(const QString& xml, QString* error)
{
    clear();
    QDomDocument doc;
    if (!CxXmlReader::parse(xml.toUtf8(), doc, error))
        return false;
    const QDomElement root = doc.documentElement();
    if (root.tagName() != QLatin1String(ElementName)) {
        if (error)
            *error = QStringLiteral("line %1: expected <%2>, found <%3>")
                         .arg(root.lineNumber()).arg(QLatin1String(ElementName), root.tagName());
        return false;
    }
    return loadFromXml(root, error);
}

bool CxHsiCameraParams::saveToFile(const QString& path, QString* error) const
{
    QString reason;
    if (CxAtomicFile::write(path, toXmlString().toUtf8(), &reason))
        return true;
    if (error)
        *error = QStringLiteral("%1: %2").arg(path, reason);
    return false;
}

bool CxHsiCameraParams::loadFromFile(const QString& path, QString* error)
{
    clear();
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) {
        if (error)
            *error = QStringLiteral("%1: %2").arg(path, f.errorString());
        return false;
    }
    QString err;
    if (f.size() > CxXmlReader::maxBytes())
        err = CxXmlReader::tooLarge(f.size());
    if (!err.isEmpty() || !fromXmlString(QString::fromUtf8(f.readAll()), &err)) {
        if (error)
            *error = QStringLiteral("%1: %2").arg(path, err);
        return false;
    }
    return true;
}
