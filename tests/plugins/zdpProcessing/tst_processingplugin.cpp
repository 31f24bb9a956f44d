#include <CxChainable.h>
#include <CxPlugin.h>
#include <CxRTTI.h>

#include <QtCore/QPluginLoader>
#include <QtCore/QScopedPointer>
#include <QtTest/QtTest>

namespace {

const char* const kPluginPath = QLAR_PLUGIN_DIR "/libzdpProcessing.so";
const QString kChainableBase = QStringLiteral("CxChainable");
const QString kVendorPrefix = QStringLiteral("de.korvel.Vistrel.");

// The node classes in the order the host lists them. Saved chains name them
// by UniqueID, so these identifiers must never change.
struct SxNodeRow
{
    const char* className;
    const char* customName;
    const char* uniqueIdSuffix;
};
const SxNodeRow kNodeTable[] = {
    {"CxDeinterlaceCnbl", "Deinterlace", "CxDeinterlaceCnbl"},
    {"CxExtractChannelCnbl", "Extract Channel", "CxExtractChannelCnbl"},
    {"CxFilterImagesCnbl", "Filter Images", "FilterImagesCnbl"},
    {"CxImageAveragingCnbl", "Image Averaging", "CxImageAveragingCnbl"},
    {"CxLutInmapCnbl", "LUT Mapping", "CxLutInmapCnbl"},
    {"CxMosaicStatFilterChnbl", "Mosaic Filter", "CxMosaicStatFilterChnbl"},
    {"CxMedianCnbl", "Median Filter", "CxMedianCnbl"},
    {"CxFFT2DCnbl", "Fast Fourier Transform 2D", "CxFFT2DCnbl"},
    {"CxFFT1DCnbl", "Fast Fourier Transform 1D", "CxFFT1DCnbl"},
    {"CxRotateImageCnbl", "Rotate", "cxRotateImageCnbl"},
    {"CxRgbNirDemosaicCnbl", "RGB-NIR Processing", "CxRgbNirDemosaicCnbl"},
    {"CxSeqMergeCnbl", "Merge Sequence", "SeqMergeCnbl"},
};

} // namespace

class TestProcessingPlugin : public QObject
{
    Q_OBJECT

private slots:
    // Loaded as the host loads it; a second init finds every class known,
    // succeeds and adds nothing.
    void registration()
    {
        QPluginLoader loader(QString::fromUtf8(kPluginPath));
        auto* plugin = qobject_cast<CxPlugin*>(loader.instance());
        QVERIFY2(plugin, qPrintable(loader.errorString()));
        for (int round = 0; round < 2; ++round) {
            QVERIFY(plugin->init());
            QList<CxRTTI::SxClassEntry> own;
            for (const CxRTTI::SxClassEntry& e : CxRTTI::instance()->classes(kChainableBase))
                if (e.plugin == plugin)
                    own.append(e);
            QCOMPARE(own.size(), int(std::size(kNodeTable)));
            for (int i = 0; i < own.size(); ++i) {
                const SxNodeRow& row = kNodeTable[i];
                QCOMPARE(own[i].className, QString::fromLatin1(row.className));
                QCOMPARE(own[i].customName, QString::fromLatin1(row.customName));
                QCOMPARE(own[i].uniqueId, kVendorPrefix + QString::fromLatin1(row.uniqueIdSuffix));
                // The host creates nodes from the meta-object alone.
                QScopedPointer<CxChainable> node(CxRTTI::instance()->createChainableByCustomName(own[i].customName));
                QVERIFY(node && node->metaObject() == own[i].metaObject);
            }
        }
    }
};

QTEST_GUILESS_MAIN(TestProcessingPlugin)
#include "tst_processingplugin.moc"
