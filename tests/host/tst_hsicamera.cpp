#include <CxHsiCameraParams.h>

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>
#include <QtXml/QDomDocument>

#include <climits>

Q_DECLARE_METATYPE(CxHsiCameraParams)

using Zone = CxHsiCameraParams::CxFilterZone;
using Band = CxHsiCameraParams::CxBand;

namespace {
Zone zone(QRect rect, int pw, int ph, int cw, int ch, const QList<Band>& bands)
{
    Zone z;
    z.rect = rect;
    z.patternWidth = pw;
    z.patternHeight = ph;
    z.cellWidth = cw;
    z.cellHeight = ch;
    z.bands = bands;
    return z;
}

// Upper half: 2 x 2 pattern of single pixels; lower half: 3 x 1 pattern of
// 2 x 2 pixel cells.
CxHsiCameraParams twoZoneCamera()
{
    CxHsiCameraParams p;
    p.addFilterZone(zone(QRect(QPoint(0, 0), QPoint(63, 31)), 2, 2, 1, 1,
                         {Band("B600", 600), Band("B500", 500), Band("B700", 700), Band("B550", 550)}));
    p.addFilterZone(zone(QRect(QPoint(0, 32), QPoint(63, 63)), 3, 1, 2, 2,
                         {Band("N900", 900), Band("N800", 800), Band("N850", 850)}));
    return p;
}

CxHsiCameraParams simpleCamera(QRect rect = QRect())
{
    CxHsiCameraParams p;
    p.addFilterZone(zone(rect, 2, 1, 1, 1, {Band("a", 1), Band("b", 2)}));
    return p;
}
} // namespace

struct SxLayoutKind { CxHsiCameraParams params; bool valid; bool simple; bool rgbNir; };
Q_DECLARE_METATYPE(SxLayoutKind)

struct SxBandCase { int total; int zone; int band; QString name; };
Q_DECLARE_METATYPE(SxBandCase)

class TstHsiCamera : public QObject
{
    Q_OBJECT
private slots:
    void bandLookup_data()
    {
        QTest::addColumn<SxBandCase>("row");
        QTest::newRow("first band") << SxBandCase{0, 0, 0, "B600"};
        QTest::newRow("last of first zone") << SxBandCase{3, 0, 3, "B550"};
        QTest::newRow("first of second zone") << SxBandCase{4, 1, 0, "N900"};
        QTest::newRow("last band") << SxBandCase{6, 1, 2, "N850"};
        QTest::newRow("one past the end") << SxBandCase{7, -1, -1, ""};
        QTest::newRow("far past the end") << SxBandCase{INT_MAX, -1, -1, ""};
        QTest::newRow("minus one") << SxBandCase{-1, -1, -1, ""};
        QTest::newRow("most negative") << SxBandCase{INT_MIN, -1, -1, ""};
    }
    void bandLookup()
    {
        QFETCH(SxBandCase, row);
        const auto& [total, zone, band, name] = row;
        const CxHsiCameraParams p = twoZoneCamera();
        QVERIFY(p.isValid());
        QCOMPARE(p.totalBandCountInAllZones(), 7);
        CxHsiCameraParams::SxBandIdx idx;
        idx.zone = 42;
        idx.band = 42;
        const Zone* z = p.filterZoneWithTotalBandIdx(total, &idx);
        QCOMPARE(idx.zone, zone);
        QCOMPARE(idx.band, band);
        if (zone < 0) {
            QVERIFY(!z);
            return;
        }
        QCOMPARE(z, p.filterZone(zone));
        QCOMPARE(z->bands[band].name(), name);
        QCOMPARE(p.filterZoneWithTotalBandIdx(total, nullptr), z);
    }

    void sortedBands_data()
    {
        QTest::addColumn<QList<double>>("wavelengths");
        QTest::addColumn<bool>("descending");
        QTest::addColumn<QList<int>>("order");
        QTest::newRow("ascending") << QList<double>{600, 500, 700, 550} << false << QList<int>{1, 3, 0, 2};
        QTest::newRow("descending") << QList<double>{600, 500, 700, 550} << true << QList<int>{2, 0, 3, 1};
        QTest::newRow("ties keep pattern order") << QList<double>{5, 1, 5, 1} << false << QList<int>{1, 3, 0, 2};
        QTest::newRow("ties keep pattern order descending") << QList<double>{5, 1, 5, 1} << true << QList<int>{0, 2, 1, 3};
    }
    void sortedBands()
    {
        QFETCH(QList<double>, wavelengths);
        QFETCH(bool, descending);
        QFETCH(QList<int>, order);
        QList<Band> bands;
        for (double w : wavelengths)
            bands.append(Band(QString(), w));
        QCOMPARE(zone(QRect(), 2, 2, 1, 1, bands).sortedBandIdxs(descending), order);
    }

    // A band without a name of its own is called by its wavelength.
    void bandNames()
    {
        QCOMPARE(Band(QString(), 712.5).name(), QString("712.5 nm"));
        QCOMPARE(Band().name(), QString());
    }

    void layoutKinds_data()
    {
        QTest::addColumn<SxLayoutKind>("row");
        CxHsiCameraParams rgbNirPermuted;
        rgbNirPermuted.addFilterZone(zone(QRect(), 2, 2, 1, 1, {Band("G", 0), Band("R", 0), Band("NIR", 0), Band("B", 0)}));
        CxHsiCameraParams noNir;
        noNir.addFilterZone(zone(QRect(), 2, 2, 1, 1, {Band("G", 0), Band("R", 0), Band("G", 0), Band("B", 0)}));
        CxHsiCameraParams bigCells;
        bigCells.addFilterZone(zone(QRect(), 2, 2, 2, 2, {Band("G", 0), Band("R", 0), Band("NIR", 0), Band("B", 0)}));
        CxHsiCameraParams shortPattern;
        shortPattern.addFilterZone(zone(QRect(), 2, 2, 1, 1, {Band("a", 1), Band("b", 2), Band("c", 3)}));
        CxHsiCameraParams negativeOrigin = simpleCamera(QRect(-1, 0, 8, 8));
        CxHsiCameraParams zeroPattern;
        zeroPattern.addFilterZone(zone(QRect(), 0, 1, 1, 1, {}));

        QTest::newRow("empty") << SxLayoutKind{CxHsiCameraParams(), false, false, false};
        QTest::newRow("two zones") << SxLayoutKind{twoZoneCamera(), true, false, false};
        QTest::newRow("one zone, whole sensor") << SxLayoutKind{simpleCamera(), true, true, false};
        QTest::newRow("one zone at origin") << SxLayoutKind{simpleCamera(QRect(0, 0, 16, 8)), true, true, false};
        QTest::newRow("one zone off origin") << SxLayoutKind{simpleCamera(QRect(4, 0, 16, 8)), true, false, false};
        QTest::newRow("standard rgb-nir") << SxLayoutKind{CxHsiCameraParams::standardRgbNir(), true, true, true};
        QTest::newRow("rgb-nir permuted") << SxLayoutKind{rgbNirPermuted, true, true, true};
        QTest::newRow("rgb-nir without nir") << SxLayoutKind{noNir, true, true, false};
        QTest::newRow("rgb-nir names on big cells") << SxLayoutKind{bigCells, true, false, false};
        QTest::newRow("pattern not filled") << SxLayoutKind{shortPattern, false, false, false};
        QTest::newRow("zone starts left of sensor") << SxLayoutKind{negativeOrigin, false, false, false};
        QTest::newRow("zero pattern") << SxLayoutKind{zeroPattern, false, false, false};
    }
    void layoutKinds()
    {
        QFETCH(SxLayoutKind, row);
        const auto& [params, valid, simple, rgbNir] = row;
        QCOMPARE(params.isValid(), valid);
        QCOMPARE(params.isSimpleMosaicFilter(), simple);
        QCOMPARE(params.isRgbNirCamera(), rgbNir);
    }

    void rgbNirSetter()
    {
        CxHsiCameraParams p;
        p.setRgbNirCamera(true);
        QVERIFY(p.isRgbNirCamera());
        QCOMPARE(p.filterZone(0)->bandIndexByName("NIR"), 0);
        QCOMPARE(p.filterZone(0)->bandIndexByName("G"), 3);
        p.setRgbNirCamera(false);
        QVERIFY(p.isEmpty());
        // Switching off leaves other cameras alone.
        CxHsiCameraParams hsi = twoZoneCamera();
        hsi.setRgbNirCamera(false);
        QCOMPARE(hsi, twoZoneCamera());
    }

    void xmlRoundTrip_data()
    {
        QTest::addColumn<CxHsiCameraParams>("params");
        CxHsiCameraParams awkward;
        awkward.addFilterZone(zone(QRect(), 1, 2, 3, 4, {Band("<&\"'> é", 0.1 + 0.2), Band(QString(), 1e-9)}));
        QTest::newRow("empty") << CxHsiCameraParams();
        QTest::newRow("two zones") << twoZoneCamera();
        QTest::newRow("whole sensor, awkward names and wavelengths") << awkward;
        QTest::newRow("rgb-nir") << CxHsiCameraParams::standardRgbNir();
    }
    void xmlRoundTrip()
    {
        QFETCH(CxHsiCameraParams, params);
        QString error;

        CxHsiCameraParams fromString = twoZoneCamera();
        QVERIFY2(fromString.fromXmlString(params.toXmlString(), &error), qPrintable(error));
        QCOMPARE(fromString, params);

        // Carried inside another document, after other children.
        QDomDocument doc;
        QDomElement host = doc.createElement("Image");
        doc.appendChild(host);
        host.appendChild(doc.createElement("Other"));
        QVERIFY(params.saveToXml(doc, host));
        QDomDocument reread;
        QVERIFY(reread.setContent(doc.toString()));
        CxHsiCameraParams fromElement;
        QVERIFY2(fromElement.loadFromXml(reread.documentElement(), &error), qPrintable(error));
        QCOMPARE(fromElement, params);

        QTemporaryDir dir;
        const QString path = dir.filePath("camera.xml");
        QVERIFY2(params.saveToFile(path, &error), qPrintable(error));
        CxHsiCameraParams fromFile = twoZoneCamera();
        QVERIFY2(fromFile.loadFromFile(path, &error), qPrintable(error));
        QCOMPARE(fromFile, params);
    }

    void elementWithoutDescription()
    {
        QDomDocument doc;
        QVERIFY(doc.setContent(QString("<Image><Other/></Image>")));
        CxHsiCameraParams p = twoZoneCamera();
        QString error;
        QVERIFY(p.loadFromXml(doc.documentElement(), &error));
        QVERIFY(p.isEmpty());
        QVERIFY(error.isEmpty());
    }

    void malformedXml_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::addColumn<QString>("expected");  // start and a distinctive part of the message
        QTest::addColumn<QString>("what");
        const QString zoneOpen = "<HsiCameraParams>\n<FilterZone patternWidth=\"1\" patternHeight=\"1\"";
        QTest::newRow("unclosed element") << QString("<HsiCameraParams>\n<FilterZone>\n") << "line 3" << "";
        QTest::newRow("wrong root") << QString("<Camera/>") << "line 1" << "expected <HsiCameraParams>";
        QTest::newRow("missing pattern width")
            << QString("<HsiCameraParams>\n<FilterZone patternHeight=\"1\"><Band/></FilterZone></HsiCameraParams>")
            << "line 2" << "patternWidth";
        QTest::newRow("cell width not a number")
            << QString(zoneOpen + " cellWidth=\"wide\"><Band/></FilterZone></HsiCameraParams>") << "line 2" << "cellWidth";
        QTest::newRow("zero pattern height")
            << QString("<HsiCameraParams>\n<FilterZone patternWidth=\"1\" patternHeight=\"0\"/></HsiCameraParams>")
            << "line 2" << "patternHeight";
        QTest::newRow("pattern not filled")
            << QString("<HsiCameraParams>\n\n<FilterZone patternWidth=\"2\" patternHeight=\"1\"><Band/></FilterZone>"
                       "</HsiCameraParams>")
            << "line 3" << "needs 2 bands";
        QTest::newRow("negative wavelength")
            << QString(zoneOpen + ">\n\n<Band wavelength=\"-5\"/></FilterZone></HsiCameraParams>") << "line 4" << "wavelength";
        QTest::newRow("one corner only")
            << QString(zoneOpen + " left=\"3\"><Band/></FilterZone></HsiCameraParams>") << "line 2" << "top";
        QTest::newRow("rectangle left of sensor")
            << QString(zoneOpen + " left=\"-2\" top=\"0\" right=\"5\" bottom=\"5\"><Band/></FilterZone></HsiCameraParams>")
            << "line 2" << "outside the sensor";
        QTest::newRow("second zone bad")
            << QString("<HsiCameraParams>\n<FilterZone patternWidth=\"1\" patternHeight=\"1\"><Band/></FilterZone>\n"
                       "<FilterZone patternWidth=\"1\" patternHeight=\"1\"/></HsiCameraParams>")
            << "line 3" << "needs 1 bands";
    }
    void malformedXml()
    {
        QFETCH(QString, xml);
        QFETCH(QString, expected);
        QFETCH(QString, what);
        CxHsiCameraParams p = twoZoneCamera();
        QString error;
        QVERIFY(!p.fromXmlString(xml, &error));
        QVERIFY2(p.isEmpty(), "a failed load leaves the description empty");
        QVERIFY2(error.startsWith(expected), qPrintable(error));
        QVERIFY2(error.contains(what), qPrintable(error));
    }

    // A failure through a file names the file, and leaves the description empty.
    void fileErrorsNameTheFile()
    {
        QTemporaryDir dir;
        const QString bad = dir.filePath("bad.xml");
        QFile f(bad);
        QVERIFY(f.open(QIODevice::WriteOnly) && f.write("<HsiCameraParams>\n<FilterZone>\n") > 0);
        f.close();
        for (const QString& path : {bad, QString("/nonexistent/camera.xml")}) {
            CxHsiCameraParams p = twoZoneCamera();
            QString error;
            QVERIFY(!p.loadFromFile(path, &error));
            QVERIFY(p.isEmpty());
            QVERIFY2(error.contains(path) && (path != bad || error.contains("line 3")), qPrintable(error));
        }
    }

    void newerFilesStillLoad()
    {
        const QString xml = "<HsiCameraParams version=\"3\" vendorThing=\"x\"><Lens/>"
                            "<FilterZone patternWidth=\"1\" patternHeight=\"1\" tilt=\"2\"><Band name=\"only\" fwhm=\"9\"/>"
                            "</FilterZone></HsiCameraParams>";
        CxHsiCameraParams p;
        QString error;
        QVERIFY2(p.fromXmlString(xml, &error), qPrintable(error));
        QCOMPARE(p.totalBandCountInAllZones(), 1);
        QCOMPARE(p.filterZone(0)->bands[0].name(), QString("only"));
    }
};

QTEST_GUILESS_MAIN(TstHsiCamera)
#include "tst_hsicamera.moc"
