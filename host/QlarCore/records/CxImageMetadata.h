#pragma once
#include "QlarCoreExport.h"
#include "CxHsiCameraParams.h"
#include "SxPicBufInfo.h"

#include <QtCore/QDateTime>
#include <QtCore/QStringList>

// The description that travels with a picture. Plain value type; nodes that
// do not change the description copy it whole.
class QLARCORE_EXPORT CxImageMetadata
{
public:
    CxImageMetadata() = default;
    ~CxImageMetadata() = default;
    CxImageMetadata(const CxImageMetadata&) = default;
    CxImageMetadata& operator=(const CxImageMetadata&) = default;

    // Brings the picture-related fields in line with a format (size, bits,
    // the description's copy of the filter array); null is ignored.
    void updateFromPicBufInfo(const SxPicBufInfo* info);

    ExColorFilterArray colorFilterArray() const { return m_colorFilterArray; }
    void setColorFilterArray(ExColorFilterArray cfa) { m_colorFilterArray = cfa; }

    const CxHsiCameraParams& hsiCameraParams() const { return m_hsi; }
    CxHsiCameraParams& hsiCameraParams() { return m_hsi; }
    void setHsiCameraParams(const CxHsiCameraParams& p) { m_hsi = p; }

    QStringList channelNames() const { return m_channelNames; }
    void setChannelNames(const QStringList& names) { m_channelNames = names; }

    QString cameraName() const { return m_cameraName; }
    void setCameraName(const QString& s) { m_cameraName = s; }
    QString comment() const { return m_comment; }
    void setComment(const QString& s) { m_comment = s; }
    QDateTime timestamp() const { return m_timestamp; }
    void setTimestamp(const QDateTime& t) { m_timestamp = t; }

    quint32 width() const { return m_width; }
    quint32 height() const { return m_height; }
    quint32 bitsPerSample() const { return m_bitsPerSample; }

private:
    ExColorFilterArray m_colorFilterArray = CFA_NONE;
    CxHsiCameraParams m_hsi;
    QStringList m_channelNames;
    QString m_cameraName;
    QString m_comment;
    QDateTime m_timestamp;
    quint32 m_width = 0;
    quint32 m_height = 0;
    quint32 m_bitsPerSample = 0;
};
