#include "ProcessingPlugin.h"

#include "DeinterlaceCnbl.h"
#include "ExtractChannelCnbl.h"
#include "FilterImagesCnbl.h"
#include "ImageAveragingCnbl.h"
#include "LutInmapCnbl.h"
#include "MosaicStatFilterChnbl.h"
#include "MedianCnbl.h"
#include "FFT2DCnbl.h"
#include "FFT1DCnbl.h"
#include "RotateImageCnbl.h"
#include "RgbNirDemosaicCnbl.h"
#include "SeqMergeCnbl.h"

#include <CxRTTI.h>
#include <QlarCoreVersion.h>

CxProcessingPlugin::CxProcessingPlugin(QObject* parent)
    : QObject(parent)
{
}

CxProcessingPlugin::~CxProcessingPlugin() = default;

bool CxProcessingPlugin::init()
{
    // The order is the order of the host's node list.
    const QMetaObject* const nodeClasses[] = {
        &CxDeinterlaceCnbl::staticMetaObject,
        &CxExtractChannelCnbl::staticMetaObject,
        &CxFilterImagesCnbl::staticMetaObject,
        &CxImageAveragingCnbl::staticMetaObject,
        &CxLutInmapCnbl::staticMetaObject,
        &CxMosaicStatFilterChnbl::staticMetaObject,
        &CxMedianCnbl::staticMetaObject,
        &CxFFT2DCnbl::staticMetaObject,
        &CxFFT1DCnbl::staticMetaObject,
        &CxRotateImageCnbl::staticMetaObject,
        &CxRgbNirDemosaicCnbl::staticMetaObject,
        &CxSeqMergeCnbl::staticMetaObject,
    };
    // A class the registry refuses (already known, say after a reload) is no
    // reason to refuse the plug-in.
    for (const QMetaObject* metaObject : nodeClasses)
        CxRTTI::instance()->registerClass(this, *metaObject, QString("CxChainable"));
    return true;
}

QString CxProcessingPlugin::name() const
{
    return tr("Image Processing");
}

QString CxProcessingPlugin::author() const
{
    return QStringLiteral("Korvel GmbH");
}

QString CxProcessingPlugin::description() const
{
    return tr("This plugin implements a set of image processing objects.");
}

void CxProcessingPlugin::version(int& major, int& minor, int& patch) const
{
    // The plug-in is released with the host core and carries its version.
    QlarCoreVersion(major, minor, patch);
}

QString CxProcessingPlugin::website() const
{
    return QStringLiteral("http://www.korvel.de");
}
