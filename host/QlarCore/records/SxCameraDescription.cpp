#include "SxCameraDescription.h"
#include "CxXmlReader.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtXml/QDomDocument>

const char* const SxCameraDescription::RootElement = "QlarCamera";
const char* const SxCameraDescription::CfaAttribute = "colorFilterArray";
const char* const SxCameraDescription::BitsAttribute = "bitsPerSample";

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("SxCameraDescription", text);
}

} // namespace

void SxCameraDescription::overlay(const SxCameraDescription& over)
{
    if (over.hasColorFilterArray) {
        hasColorFilterArray = true;
        colorFilterArray = over.colorFilterArray;
        hsi = over.hsi;
    }
    if (over.bitsPerSample)
        bitsPerSample = over.bitsPerSample;
}

bool SxCameraDescription::loadFromElement(const QDomElement& root, QString* error)
{
    *this = SxCameraDescription();
    const auto fail = [&](const QString& what) {
        *this = SxCameraDescription();
        *error = what;
        return false;
    };
    const bool bare = root.tagName() == QLatin1String(CxHsiCameraParams::ElementName);
    if (!bare && root.tagName() != QLatin1String(RootElement))
        return fail(tr("line %1: the element is %2, expected %3")
                        .arg(root.lineNumber()).arg(root.tagName(), QLatin1String(RootElement)));

    const auto number = [&](const char* name, quint32 low, quint32 high, quint32& value) {
        bool ok = false;
        value = root.attribute(QString::fromLatin1(name)).toUInt(&ok);
        return ok && value >= low && value <= high;
    };
    if (root.hasAttribute(QString::fromLatin1(CfaAttribute))) {
        quint32 cfa = 0;
        if (!number(CfaAttribute, 0, CFA_HSI_MOSAIC, cfa))
            return fail(tr("line %1: %2 must be 0 to 7").arg(root.lineNumber()).arg(QLatin1String(CfaAttribute)));
        hasColorFilterArray = true;
        colorFilterArray = ExColorFilterArray(cfa);
    }
    if (root.hasAttribute(QString::fromLatin1(BitsAttribute)) && !number(BitsAttribute, 1, 32, bitsPerSample))
        return fail(tr("line %1: %2 must be 1 to 32").arg(root.lineNumber()).arg(QLatin1String(BitsAttribute)));

    QString hsiError;
    if (!hsi.loadFromXml(root, &hsiError))
        return fail(hsiError);
    if (!hsi.isEmpty() && !hasColorFilterArray) {
        hasColorFilterArray = true;
        colorFilterArray = CFA_HSI_MOSAIC;
    }
    if (hasColorFilterArray && colorFilterArray == CFA_HSI_MOSAIC && !hsi.isValid())
        return fail(tr("filter array 7 needs a valid %1 element").arg(QLatin1String(CxHsiCameraParams::ElementName)));
    return true;
}

void SxCameraDescription::saveToElement(QDomDocument& doc, QDomElement& parent) const
{
    QDomElement e = doc.createElement(QString::fromLatin1(RootElement));
    if (hasColorFilterArray)
        e.setAttribute(QString::fromLatin1(CfaAttribute), quint32(colorFilterArray));
    if (bitsPerSample)
        e.setAttribute(QString::fromLatin1(BitsAttribute), bitsPerSample);
    if (hasColorFilterArray && colorFilterArray == CFA_HSI_MOSAIC && !hsi.isEmpty())
        hsi.saveToXml(doc, e);
    parent.appendChild(e);
}

bool SxCameraDescription::loadFromFile(const QString& path, QString* error)
{
    *this = SxCameraDescription();
    if (!QFile::exists(path)) {
        *error = tr("%1: cannot open the camera description (%2)").arg(path, tr("No such file or directory"));
        return false;
    }
    QDomDocument doc;
    QString message;
    if (!CxXmlReader::parseFile(path, doc, &message)) {
        *error = tr("%1: %2").arg(path, message);
        return false;
    }
    QString why;
    if (!loadFromElement(doc.documentElement(), &why)) {
        *error = QStringLiteral("%1: %2").arg(path, why);
        return false;
    }
    return true;
}

SxCameraDescription SxCameraDescription::fromFormat(const SxPicBufInfo& format, const CxImageMetadata& meta)
{
    SxCameraDescription described;
    described.hasColorFilterArray = true;
    described.colorFilterArray = format.colorFilterArray;
    described.bitsPerSample = format.bitsPerSample;
    if (format.colorFilterArray == CFA_HSI_MOSAIC)
        described.hsi = meta.hsiCameraParams();
    return described;
}
