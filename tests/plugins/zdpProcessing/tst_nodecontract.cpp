// What every node promises the host, one row per node: which packets it
// refuses and how, how its settings load, save and travel with a clone, what
// its quick buttons do to a running chain, and how its title and help relate
// to its class. The rules come from each node's own description.
#include "NodeTestKit.h"

#include "DeinterlaceCnbl.h"
#include "ExtractChannelCnbl.h"
#include "FFT1DCnbl.h"
#include "FFT2DCnbl.h"
#include "FilterImagesCnbl.h"
#include "ImageAveragingCnbl.h"
#include "LutInmapCnbl.h"
#include "MedianCnbl.h"
#include "MosaicStatFilterChnbl.h"
#include "RgbNirDemosaicCnbl.h"
#include "RotateImageCnbl.h"
#include "SeqMergeCnbl.h"

#include <QtCore/QPointer>
#include <QtTest/QtTest>
#include <QtWidgets/QAbstractButton>
#include <QtWidgets/QComboBox>
#include <QtWidgets/QDoubleSpinBox>
#include <QtWidgets/QListWidget>
#include <QtWidgets/QRadioButton>
#include <QtWidgets/QSpinBox>

#include <memory>

using namespace nodetest;

namespace {

// What processData does with a packet: answers null and leaves it to the
// caller, or hands the very packet back.
enum ExOutcome : char { Null = 'N', Passed = 'P' };

// A picture the node cannot handle with these settings, what becomes of it,
// and whether the user is told.
struct SxUnsupported
{
    SxPicBufInfo format;
    const char* settings;
    char outcome;
    bool tellsUser;
};

struct SxNodeRule
{
    const QMetaObject* cls;
    // Outcomes for: a packet that is not a picture, a stopping node, a
    // picture without pixels, a 0 x 0 picture, a pool with no picture free.
    const char* refusals;
    // Pictures the node cannot handle.
    QList<SxUnsupported> unsupported;
    // Settings that differ from the defaults, as loaded from a document.
    const char* settings;
    bool loadsWithoutAttributes;   // loadSettings' answer for an element without them
    const char* afterEmptyLoad;    // attributes an empty element does not keep, as they then save
    const char* junk;              // attributes whose junk text does not load as 0, as they then save
    const char* junkRefused;       // attributes whose junk makes loadSettings answer false; "*" all
    const char* cloneOnly;         // when set, the only settings a clone copies
    // Quick buttons: settings that make them appear, the host flag, how many,
    // and whether pressing one restarts a running chain.
    const char* buttonSettings;
    bool hasButtons;
    int buttons;
    bool buttonsRestart;
    bool titleIsName;
    bool hasHelp;
    // A panel change of a setting on a running chain: restarts it once ('R'),
    // never ('N'), or depending on the setting ('M').
    char panel;
    // The node's own reading of single attributes: "name=text>saved", loaded
    // into a default node, or with a leading '+' into one holding settings.
    const char* loads;
};

const SxPicBufInfo kRgb = format(8, 6, 3, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true);
const SxPicBufInfo kNotRaw = format(8, 6, 1, IDT_UINT8, 0, CFA_BAYER_RGGB, DSF_NOT_RAW);
const SxPicBufInfo kHsi = format(8, 6, 1, IDT_UINT16, 0, CFA_HSI_MOSAIC);  // described nowhere

SxPicBufInfo mono(ExImageDataType type, quint32 channels = 1, ExColorFilterArray cfa = CFA_NONE)
{
    return format(8, 6, channels, type, 0, cfa);
}

const SxNodeRule kNodes[] = {
    {&CxDeinterlaceCnbl::staticMetaObject, "NNNNN", {},
     "transform=3", true, "", "", "", "", "", true, 4, true, true, true, 'R',
     "transform=7>7 transform=-1>-1 +transform=1.5>0 +transform=4294967296>0"},
    {&CxExtractChannelCnbl::staticMetaObject, "PNNNN", {},
     "channelIdx=2", true, "channelIdx=0", "", "", "", "", true, 4, true, false, true, 'R',
     "channelIdx=4294967295>4294967295 +channelIdx=-1>0 +channelIdx=4294967296>0"},
    {&CxFilterImagesCnbl::staticMetaObject, "PPPPP", {},
     "filterModulo=5 filterRemainder=3", true, "", "", "", "", "", false, 0, false, false, false, 'N',
     "filterModulo=-2>-2 filterRemainder=12>12 +filterRemainder=1.5>0"},
    {&CxImageAveragingCnbl::staticMetaObject, "PNNNN", {{mono(IDT_INT16), "mode=1", Null, false}},
     "averageCount=7 countInfinite=1 mode=2 allModesTogether=1 stDevValScaling=10 lineAveraing=1", false, "",
     "countInfinite=1 allModesTogether=1", "*", "", "countInfinite=1", false, 1, false, false, true, 'M',
     "countInfinite=>1 +countInfinite=0>0 averageCount=3000000000>0 mode=7>7 stDevValScaling=5>5"},
    {&CxLutInmapCnbl::staticMetaObject, "PNNNN", {{mono(IDT_UINT64), "MapToRGB=1", Passed, true}},
     "MapToRGB=1 PseudoColor=3 AutoMinMax=0 AutoTolerance=5 SrcMin=-20 SrcMax=4000 Gamma=0.5", true, "", "", "",
     "", "", false, 0, false, true, true, 'R',
     "MapToRGB=2>1 +MapToRGB=-1>0 PseudoColor=-1>-1 AutoTolerance=2.7>2 AutoTolerance=1e30>2147483647 SrcMin=-5000000000>-5000000000 Gamma=0.25>0.25"},
    {&CxMosaicStatFilterChnbl::staticMetaObject, "NNNNN",
     {{kRgb, "", Passed, true}, {kNotRaw, "", Passed, true}, {kHsi, "", Passed, true},
      {mono(IDT_DOUBLE, 1, CFA_BAYER_RGGB), "", Passed, true}, {mono(IDT_UINT8, 1, CFA_BAYER_RGGB), "statFilter=7", Passed, true}},
     "statFilter=3 interpolation=0", true, "", "", "statFilter interpolation", "", "", false, 0, false, false, true, 'R',
     "statFilter=7>7 +interpolation=-5>1"},
    {&CxMedianCnbl::staticMetaObject, "PPNNN",
     {{mono(IDT_INT16), "", Passed, true}, {mono(IDT_FLOAT), "", Passed, true},
      {mono(IDT_UINT32, 1, CFA_BAYER_RGGB), "", Passed, true}, {kHsi, "", Passed, true}},
     "kernelSize=7", false, "", "kernelSize=3", "", "", "", false, 0, false, false, true, 'R',
     "+kernelSize=1>3 +kernelSize=0>3 +kernelSize=-7>3 +kernelSize=99999999999>3 kernelSize=8>7"},
    {&CxFFT2DCnbl::staticMetaObject, "PPNNN", {{mono(IDT_UINT8, 3), "", Passed, true}, {mono(IDT_FLOAT), "", Passed, true}},
     "channel=2", true, "", "", "", "", "", false, 0, false, false, true, 'R',
     "channel=-1>-1 +channel=99999999999>0"},
    {&CxFFT1DCnbl::staticMetaObject, "PPNNN", {{mono(IDT_INT16), "", Passed, true}, {mono(IDT_INT8), "", Passed, true}},
     "channel=2 transtype=0 includeDC=0 logarY=1 gridX=0 gridY=0 autoScaleY=0 minY=-2.5 maxY=1234.5", true, "",
     "", "", "channel transtype", "", false, 0, false, false, true, 'R',
     "channel=99999999999>0 transtype=7>7 +includeDC=2>1 minY=1e3>1000"},
    {&CxRotateImageCnbl::staticMetaObject, "NNNNN",
     {{mono(IDT_DOUBLE), "", Null, false}, {mono(IDT_HALF), "", Null, false}, {mono(IDT_UINT64), "", Null, false},
      {mono(IDT_UNKNOWN), "", Null, false}, {mono(IDT_UINT8, 0), "", Null, false},
      {mono(IDT_INT32), "rotClockwise=0", Null, false}},
     "rotClockwise=0", true, "", "", "", "", "", true, 2, true, true, false, 'R',
     "+rotClockwise=2>1 rotClockwise=-1>0 rotClockwise=4294967296>0"},
    {&CxRgbNirDemosaicCnbl::staticMetaObject, "PNNNN", {{kRgb, "", Passed, false}, {mono(IDT_UINT16), "", Passed, false}, {kNotRaw, "", Passed, false}},
     "channel=1", false, "", "", "", "", "", true, 2, true, false, true, 'R',
     "channel=7>7"},
    {&CxSeqMergeCnbl::staticMetaObject, "PNNNN", {},
     "mergeSeqMode=1 mergeSeqCount=5 mergeSeqPassComplete=0", true, "", "", "", "", "", true, 2, true, false, false, 'M',
     "mergeSeqCount=0>0 mergeSeqCount=65>65 +mergeSeqPassComplete=2>1 mergeSeqPassComplete=-1>0"},
};

// Every node starts on this input: one channel, 2 x 2 mosaic, even size,
// padded rows.
const SxPicBufInfo kInput = format(8, 6, 1, IDT_UINT8, 3, CFA_BAYER_RGGB);

CxImageMetadata inputMeta()
{
    return mosaicMeta(CFA_BAYER_RGGB);
}

const SxNodeRule& rule(int node)
{
    return kNodes[node];
}

QString className(int node)
{
    return QString::fromLatin1(rule(node).cls->className());
}

Attributes attributes(const char* text)
{
    Attributes map;
    for (const QString& pair : QString::fromLatin1(text).split(' ', Qt::SkipEmptyParts))
        map.insert(pair.section('=', 0, 0), pair.section('=', 1));
    return map;
}

std::unique_ptr<CxChainable> create(int node)
{
    return std::unique_ptr<CxChainable>(qobject_cast<CxChainable*>(rule(node).cls->newInstance()));
}

class CxForeignData : public IxChainData
{
};

// Changes what a control shows, as a user would; false for controls that
// take no input.
bool poke(QWidget* w)
{
    if (auto* radio = qobject_cast<QRadioButton*>(w)) {
        if (radio->isChecked())
            return false;
        radio->click();
    } else if (auto* button = qobject_cast<QAbstractButton*>(w)) {
        button->click();
    } else if (auto* spin = qobject_cast<QSpinBox*>(w)) {
        spin->setValue(spin->value() + (spin->value() < spin->maximum() ? 1 : -1) * spin->singleStep());
    } else if (auto* real = qobject_cast<QDoubleSpinBox*>(w)) {
        real->setValue(real->value() + (real->value() < real->maximum() ? 1 : -1) * real->singleStep());
    } else if (auto* combo = qobject_cast<QComboBox*>(w); combo && combo->count() > 1) {
        combo->setCurrentIndex((combo->currentIndex() + 1) % combo->count());
    } else if (auto* list = qobject_cast<QListWidget*>(w); list && list->count() > 1) {
        list->setCurrentRow((list->currentRow() + 1) % list->count());
    } else {
        return false;
    }
    return true;
}

void addNodeRows()
{
    QTest::addColumn<int>("node");
    for (int n = 0; n < int(std::size(kNodes)); ++n)
        QTest::newRow(qPrintable(className(n))) << n;
}

} // namespace

class TestNodeContract : public QObject
{
    Q_OBJECT

private slots:
    void frame_data() { addNodeRows(); }
    void settings_data() { addNodeRows(); }
    void quickButtons_data() { addNodeRows(); }
    void panel_data() { addNodeRows(); }
    void identity_data() { addNodeRows(); }
    // A picture made from a frame comes from the node's pool and carries the
    // frame's acquisition values and attachments (of the first frame in it); the
    // node frees the frame and writes nothing into it.
    void frame()
    {
        QFETCH(int, node);
        SxNodeRun<CxChainable> run(kInput, inputMeta(), create(node).release());
        CxChainable* n = run.node;
        QVERIFY2(run.chain.start(), qPrintable(run.chain.lastError()));
        CxPicture input(kInput, {}, inputMeta());
        input.fillPositions();
        input.pic().attachments.insert(QStringLiteral("gain"), 3);

        std::unique_ptr<IxChainData> out;
        for (qint32 number = 0; number < 3 && !out; ++number) {
            input.pic().frameNumber = number;
            QPointer<IxChainData> packet(input.packet());
            out.reset(n->processData(packet));
            if (out.get() == packet.data()) {
                out.release();
                delete packet.data();
                return;  // passed on as it came
            }
            QVERIFY(packet.isNull() == bool(out));
            delete packet.data();
        }
        QVERIFY(out);
        QVERIFY(input.padsIntact());
        if (auto* image = qobject_cast<CxImageData*>(out.get())) {
            const SxPicBuf& pic = *image->picBuf();
            QCOMPARE(pic.memOrigin, SxPicBuf::MemPool);
            QCOMPARE(pic.frameNumber, 0);
            QCOMPARE(pic.exposureTimeUs, CxPicture::ExposureUs);
            QCOMPARE(pic.timestampMs, CxPicture::TimestampMs);
            QCOMPARE(pic.attachments, input.pic().attachments);
        }
    }

    void refusals_data()
    {
        QTest::addColumn<int>("node");
        QTest::addColumn<QString>("packetCase");
        QTest::addColumn<char>("outcome");
        QTest::addColumn<SxPicBufInfo>("picture");
        QTest::addColumn<QString>("settings");
        QTest::addColumn<bool>("tellsUser");

        const char* const cases[] = {"null", "foreign", "stopping", "no pixels", "0 x 0", "exhausted"};
        for (int n = 0; n < int(std::size(kNodes)); ++n) {
            for (int c = 0; c < 6; ++c)
                QTest::addRow("%s %s", qPrintable(className(n)), cases[c])
                    << n << QString::fromLatin1(cases[c]) << (c ? rule(n).refusals[c - 1] : char(Null)) << kInput
                    << QString() << false;
            for (const SxUnsupported& u : rule(n).unsupported)
                QTest::addRow("%s %s %s", qPrintable(className(n)), qPrintable(u.format.describe()), u.settings)
                    << n << QStringLiteral("unsupported") << u.outcome << u.format << QString::fromLatin1(u.settings)
                    << u.tellsUser;
        }
    }

    // Handed straight to processData, as the host does, on a started chain so
    // that the node has its pool: the packet comes back or stays the caller's,
    // and no pool picture is kept.
    void refusals()
    {
        QFETCH(int, node);
        QFETCH(QString, packetCase);
        QFETCH(char, outcome);
        QFETCH(SxPicBufInfo, picture);
        QFETCH(QString, settings);
        QFETCH(bool, tellsUser);

        SxDocument doc;
        SxNodeRun<CxChainable> run(kInput, inputMeta(), create(node).release());
        CxChainable* n = run.node;
        n->loadSettings(doc.element(attributes(settings.toLatin1())));
        QVERIFY2(run.chain.start(), qPrintable(run.chain.lastError()));
        const qint64 outstanding = CxPicBufAPI::OutstandingPoolPictures();

        CxPicture input(picture, {}, inputMeta());
        input.fillPositions();
        input.pic().frameNumber = 0;
        IxChainData* packet = nullptr;
        if (packetCase == QLatin1String("foreign")) {
            packet = new CxForeignData;
        } else if (packetCase != QLatin1String("null")) {
            CxImageData* image = input.packet();
            packet = image;
            if (packetCase == QLatin1String("no pixels") || packetCase == QLatin1String("0 x 0")) {
                image->setPicBuf(SxPicBuf());
                image->picBuf()->setPicFormat(packetCase == QLatin1String("0 x 0") ? format(0, 0, 1, IDT_UINT8, 0, CFA_BAYER_RGGB) : kInput);
            } else if (packetCase == QLatin1String("stopping")) {
                n->setState(CxChainable::StateStopping);
            }
        }
        std::vector<SxPicBuf> held;
        SxPicBufInfo pooled;
        void* pool = qobject_cast<CxImageProvider*>(n)->memoryPool();
        for (SxPicBuf p; packetCase == QLatin1String("exhausted") && pool && run.chain.negotiatedFormat(0, pooled)
             && CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, p, pooled, false); p = SxPicBuf())
            held.push_back(p);

        // Unsupported pictures twice: a message already shown stays.
        const int rounds = packetCase == QLatin1String("unsupported") ? 2 : 1;
        for (int round = 0; round < rounds; ++round) {
            IxChainData* in = round ? input.packet() : packet;
            QPointer<IxChainData> guard(in);
            IxChainData* result = n->processData(in);
            QCOMPARE(result, outcome == Passed ? in : nullptr);
            QCOMPARE(guard.data(), in);
            delete in;
            if (!tellsUser)
                QVERIFY2(n->errorMessage().isEmpty(), qPrintable(n->errorMessage()));
            else if (round)
                QCOMPARE(n->errorMessage(), QStringLiteral("earlier"));
            else
                QVERIFY(!n->errorMessage().isEmpty());
            if (tellsUser)
                n->setErrorMessage(QStringLiteral("earlier"));
        }
        n->setState(CxChainable::StateRunning);
        for (SxPicBuf& p : held)
            CxPicBufAPI::FreePicBuf(p, false);
        QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), outstanding);
    }

    // Saved settings load into a fresh node and save again the same; a clone
    // carries them; a missing attribute keeps its value and junk text loads by
    // the node's rule, each attribute on its own.
    void settings()
    {
        QFETCH(int, node);
        const SxNodeRule& r = rule(node);
        SxDocument doc;

        std::unique_ptr<CxChainable> fresh = create(node);
        const Attributes defaults = doc.saved(*fresh);
        std::unique_ptr<CxChainable> set = create(node);
        QVERIFY(set->loadSettings(doc.element(attributes(r.settings))));
        const Attributes saved = doc.saved(*set);
        const Attributes wanted = attributes(r.settings);
        for (auto it = wanted.cbegin(); it != wanted.cend(); ++it) {
            QCOMPARE(saved.value(it.key()), it.value());
            QVERIFY2(defaults.value(it.key()) != it.value(), qPrintable(it.key()));
        }

        std::unique_ptr<CxChainable> reloaded = create(node);
        QVERIFY(reloaded->loadSettings(doc.element(saved)));
        QCOMPARE(doc.saved(*reloaded), saved);

        std::unique_ptr<CxChainable> clone(set->clone());
        QVERIFY(clone && clone.get() != set.get());
        QCOMPARE(clone->metaObject(), set->metaObject());
        Attributes cloned = saved;
        if (*r.cloneOnly) {
            cloned = defaults;
            for (const QString& name : QString::fromLatin1(r.cloneOnly).split(' '))
                cloned[name] = saved.value(name);
        } else {
            QCOMPARE(clone->title(), set->title());
        }
        QCOMPARE(doc.saved(*clone), cloned);

        QCOMPARE(set->loadSettings(doc.element()), r.loadsWithoutAttributes);
        Attributes kept = saved;
        kept.insert(attributes(r.afterEmptyLoad));
        QCOMPARE(doc.saved(*set), kept);

        const Attributes junk = attributes(r.junk);
        const QStringList refused = QString::fromLatin1(r.junkRefused).split(' ', Qt::SkipEmptyParts);
        for (const QString& name : saved.keys()) {
            if (name == QLatin1String("maxFps"))  // the base class's
                continue;
            std::unique_ptr<CxChainable> target = create(node);
            target->loadSettings(doc.element(saved));
            const bool answer = target->loadSettings(doc.element({{name, QStringLiteral("x1")}}));
            QVERIFY2(answer == !(refused.contains(name) || refused.contains(QStringLiteral("*"))), qPrintable(name));
            Attributes after = saved;
            after[name] = junk.value(name, QStringLiteral("0"));
            QCOMPARE(doc.saved(*target), after);
        }
    }

    void loadRules_data()
    {
        QTest::addColumn<int>("node");
        QTest::addColumn<bool>("onSettings");
        QTest::addColumn<QString>("attribute");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("saved");
        for (int n = 0; n < int(std::size(kNodes)); ++n)
            for (const QString& load : QString::fromLatin1(rule(n).loads).split(' ', Qt::SkipEmptyParts)) {
                const bool onSettings = load.startsWith('+');
                const QString body = load.mid(onSettings ? 1 : 0);
                QTest::addRow("%s %s", qPrintable(className(n)), qPrintable(load))
                    << n << onSettings << body.section('=', 0, 0) << body.section('=', 1).section('>', 0, 0)
                    << body.section('>', 1);
            }
    }

    // Each load on its own: what the attribute's text becomes, as saved.
    void loadRules()
    {
        QFETCH(int, node);
        QFETCH(bool, onSettings);
        QFETCH(QString, attribute);
        QFETCH(QString, text);
        QFETCH(QString, saved);
        SxDocument doc;
        std::unique_ptr<CxChainable> n = create(node);
        if (onSettings)
            n->loadSettings(doc.element(attributes(rule(node).settings)));
        n->loadSettings(doc.element({{attribute, text}}));
        QCOMPARE(doc.saved(*n).value(attribute), saved);
    }

    // Each button not checked yet changes the setting, restarts the running
    // chain once, and is the one checked afterwards.
    void quickButtons()
    {
        QFETCH(int, node);
        const SxNodeRule& r = rule(node);
        SxDocument doc;

        for (int pressed = 0; pressed < qMax(r.buttons, 1); ++pressed) {
            SxNodeRun<CxChainable> run(kInput, inputMeta(), create(node).release());
            CxChainable* n = run.node;
            n->loadSettings(doc.element(attributes(r.buttonSettings)));
            QVERIFY(run.chain.start());

            auto buttons = [n, &r] {
                // Appended after what the host collected before.
                QList<CxChainable::CxSimpleStateConfigButton> list{{QStringLiteral("host"), -99, false, false}};
                bool has = !r.hasButtons;
                n->simpleStateConfigButtons(list, has);
                return has == r.hasButtons && list.first().id() == -99 ? list.mid(1) : list;
            };
            const auto before = buttons();
            QCOMPARE(before.size(), r.buttons);
            if (!r.buttons)
                break;
            if (r.buttonsRestart) {
                QCOMPARE(std::count_if(before.cbegin(), before.cend(), [](const auto& b) { return b.isChecked(); }), 1);
                for (const auto& b : before)
                    QVERIFY(b.isCheckable());
            }
            if (before[pressed].isChecked())
                continue;

            const Attributes settings = doc.saved(*n);
            run.starts = run.stops = 0;
            n->simpleStateConfigButtonPressed(before[pressed].id());
            QCOMPARE(run.starts, int(r.buttonsRestart));
            QCOMPARE(run.stops, int(r.buttonsRestart));
            QVERIFY(!run.chain.stopped());
            if (!r.buttonsRestart)
                continue;
            QVERIFY(doc.saved(*n) != settings);
            const auto after = buttons();
            QCOMPARE(after.size(), before.size());
            for (int i = 0; i < after.size(); ++i)
                QCOMPARE(after[i].isChecked(), i == pressed);
        }
    }

    // The panel belongs to the caller and changes the node at once; every
    // control of it is tried in turn on a running chain.
    void panel()
    {
        QFETCH(int, node);
        const SxNodeRule& r = rule(node);
        SxDocument doc;
        SxNodeRun<CxChainable> run(kInput, inputMeta(), create(node).release());
        CxChainable* n = run.node;
        QVERIFY(run.startCounted());
        QVERIFY(n->hasConfigurationWidget());
        std::unique_ptr<QWidget> panel(n->configurationWidget());
        QVERIFY(panel && !panel->parent());

        int changes = 0;
        for (QWidget* control : panel->findChildren<QWidget*>()) {
            const Attributes before = doc.saved(*n);
            run.starts = run.stops = 0;
            if (!control->isEnabled() || control->isHidden() || !poke(control))
                continue;
            const bool changed = doc.saved(*n) != before;
            changes += changed;
            const QString what = QString::fromLatin1(control->metaObject()->className()) + ' ' + control->objectName();
            QVERIFY2(!run.chain.stopped() && run.starts == run.stops, qPrintable(what));
            if (changed && r.panel != 'M')
                QVERIFY2(run.starts == (r.panel == 'R' ? 1 : 0), qPrintable(what));
        }
        QVERIFY(changes > 0);
    }

    // The host lists a node by its class's CustomName; the titles that are no
    // more than that name must show it. Help is there exactly when announced.
    // Nodes take data from picture makers only.
    void identity()
    {
        QFETCH(int, node);
        std::unique_ptr<CxChainable> n = create(node);
        const QMetaObject* mo = rule(node).cls;
        const QString name = QString::fromLatin1(mo->classInfo(mo->indexOfClassInfo("CustomName")).value());
        QVERIFY(!name.isEmpty());
        QVERIFY(!n->title().isEmpty());
        if (rule(node).titleIsName)
            QCOMPARE(n->title(), name);
        QString anchor;
        QCOMPARE(n->hasHelp(), rule(node).hasHelp);
        QCOMPARE(!n->help(anchor).isEmpty(), rule(node).hasHelp);

        std::unique_ptr<CxChainable> provider = create((node + 1) % int(std::size(kNodes)));
        CxChainable plain;
        QVERIFY(n->acceptsDataFrom(provider.get()));
        QVERIFY(!n->acceptsDataFrom(&plain));
        QVERIFY(!n->acceptsDataFrom(nullptr));
    }
};

QTEST_MAIN(TestNodeContract)
#include "tst_nodecontract.moc"
