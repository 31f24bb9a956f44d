#include "ProcessingPlugin.h"

#include "DeinterlaceCnbl.h"
#include "ExtractChannelCnbl.h"
// @include FilterImages
// @include ImageAveraging
// @include LutInmap
// @include MosaicStatFilter
// @include Median
// @include FFT2D
// @include FFT1D
// @include RotateImage
// @include RgbNirDemosaic
// @include SeqMerge

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
        // @row 3 FilterImages
        // @row 4 ImageAveraging
        // @row 5 LutInmap
        // @row 6 MosaicStatFilter
        // @row 7 Median
        // @row 8 FFT2D
        // @row 9 FFT1D
        // @row 10 RotateImage
        // @row 11 RgbNirDemosaic
        // @row 12 SeqMerge
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
