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
    void initTestCase();
    void registration_data();
    void registration();
    void registrationOrderAndRepeat();

private:
    QList<CxRTTI::SxClassEntry> ownEntries() const;

    QPluginLoader m_loader;
    QObject* m_instance = nullptr;
    CxPlugin* m_plugin = nullptr;
};

void TestProcessingPlugin::initTestCase()
{
    m_loader.setFileName(QString::fromUtf8(kPluginPath));
    QVERIFY2(m_loader.load(), qPrintable(m_loader.errorString()));
    m_instance = m_loader.instance();
    QVERIFY2(m_instance, qPrintable(m_loader.errorString()));
    m_plugin = qobject_cast<CxPlugin*>(m_instance);
    QVERIFY(m_plugin);
    QVERIFY(m_plugin->init());
}

QList<CxRTTI::SxClassEntry> TestProcessingPlugin::ownEntries() const
{
    QList<CxRTTI::SxClassEntry> own;
    for (const CxRTTI::SxClassEntry& e : CxRTTI::instance()->classes(kChainableBase))
        if (e.plugin == m_plugin)
            own.append(e);
    return own;
}

void TestProcessingPlugin::registration_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("className");
    QTest::addColumn<QString>("customName");
    QTest::addColumn<QString>("uniqueId");

    int index = 0;
    for (const SxNodeRow& row : kNodeTable) {
        QTest::newRow(row.className) << index++ << QString::fromLatin1(row.className)
                                     << QString::fromLatin1(row.customName)
                                     << kVendorPrefix + QString::fromLatin1(row.uniqueIdSuffix);
    }
}

void TestProcessingPlugin::registration()
{
    QFETCH(int, index);
    QFETCH(QString, className);
    QFETCH(QString, customName);
    QFETCH(QString, uniqueId);

    const QList<CxRTTI::SxClassEntry> own = ownEntries();
    QVERIFY(index < own.size());
    const CxRTTI::SxClassEntry& e = own.at(index);
    QCOMPARE(e.className, className);
    QCOMPARE(e.baseClassName, kChainableBase);
    QCOMPARE(e.customName, customName);
    QCOMPARE(e.uniqueId, uniqueId);
    // The host creates nodes from the meta-object alone.
    QScopedPointer<CxChainable> node(CxRTTI::instance()->createChainableByCustomName(customName));
    QVERIFY(node && node->metaObject() == e.metaObject);
}

void TestProcessingPlugin::registrationOrderAndRepeat()
{
    QStringList expected;
    for (const SxNodeRow& row : kNodeTable)
        expected << QString::fromLatin1(row.className);

    auto registeredNames = [this] {
        QStringList names;
        for (const CxRTTI::SxClassEntry& e : ownEntries())
            names << e.className;
        return names;
    };
    QCOMPARE(registeredNames(), expected);

    // A second init finds every class known; it still succeeds and adds nothing.
    QVERIFY(m_plugin->init());
    QCOMPARE(registeredNames(), expected);
}

QTEST_GUILESS_MAIN(TestProcessingPlugin)
#include "tst_processingplugin.moc"
