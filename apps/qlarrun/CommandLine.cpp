#include "CommandLine.h"

#include <QlarCoreVersion.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QRegularExpression>
#include <QtCore/QTextStream>

#include <limits>
#include <type_traits>

namespace {

// Bigger camera frames are almost certainly a typo, and their byte counts
// would strain 32-bit pitch arithmetic in the nodes.
constexpr quint32 MaxSide = 32768;

const char* const DefaultRunFolder = "out/default";

// The demonstration runs, one chain each over the synthetic Bayer camera.
struct SxDefaultChain
{
    const char* folder;  // under DefaultRunFolder
    const char* label;
    const char* nodes[4];
};

const SxDefaultChain DefaultChains[] = {
    {"green", QT_TRANSLATE_NOOP("CxCommandLine", "Extract Channel keeps the first green cell of every 2x2 cell"),
     {"Extract Channel:channelIdx=1"}},
    // The camera's bars slide sideways, so the horizontal profile (the mean
    // of each column) holds their period: 32 pixels, 16 green cells.
    {"spectrum",
     QT_TRANSLATE_NOOP("CxCommandLine",
                       "FFT 1D plots the amplitude spectrum of the green cells' horizontal profile (the mean of each "
                       "column) without its mean, which peaks at the bars' period"),
     {"Extract Channel:channelIdx=1", "Fast Fourier Transform 1D:transtype=0:includeDC=0"}},
    {"noise",
     QT_TRANSLATE_NOOP("CxCommandLine",
                       "Image Averaging takes the standard deviation of every 4 frames; LUT Mapping stretches it "
                       "automatically into viridis colours"),
     {"Image Averaging:averageCount=4:mode=1", "LUT Mapping:AutoMinMax=1:PseudoColor=3:MapToRGB=1"}},
};

} // namespace

QString CxCommandLine::defaultFolder()
{
    return QString::fromLatin1(DefaultRunFolder);
}

QList<SxRunOptions> CxCommandLine::defaultRuns()
{
    QList<SxRunOptions> runs;
    for (const SxDefaultChain& chain : DefaultChains) {
        SxRunOptions options;
        options.defaultRun = true;
        options.label = tr(chain.label);
        options.input.camera = QStringLiteral("bayer8");
        options.input.width = 640;
        options.input.height = 480;
        options.input.frames = CxInputFactory::DefaultCameraFrames;
        for (const char* text : chain.nodes) {
            if (!text)
                break;
            SxNodeRequest node;
            QString unused;
            CxChainBuilder::parseNodeRequest(QString::fromLatin1(text), node, &unused);
            options.nodes.append(node);
        }
        options.output.folder = defaultFolder() + QLatin1Char('/') + QString::fromLatin1(chain.folder);
        options.output.png = true;
        runs.append(options);
    }
    return runs;
}

QString CxCommandLine::exitStatusHelp()
{
    return tr("Exit status:\n"
              "  0  every frame ran and every output was written\n"
              "  1  usage: an unknown option, a bad number or size, options that do not go\n"
              "     together, a --node setting that is not key=value, that the node does not\n"
              "     have, or whose value the node does not take\n"
              "  2  input: a picture file, folder or pattern that is missing, unreadable,\n"
              "     truncated or of a kind not read here, a raw frame whose size does not\n"
              "     match, a camera description or chain document that is missing or\n"
              "     malformed, an unknown node name (in a document, --node or --describe)\n"
              "  3  plug-ins or chain: the plug-in folder cannot be loaded, a node refuses\n"
              "     the format it is given, or a node fails\n"
              "  4  output: the output folder, a picture or the saved chain cannot be written\n"
              "     (nothing partial is left under its name)\n"
              "  5  --strict only: a node passed frames on unprocessed or dropped them, or an\n"
              "     output was empty or had no file form\n");
}

bool CxCommandLine::parseSize(const QString& text, quint32& width, quint32& height)
{
    static const QRegularExpression re(QStringLiteral("^(\\d{1,6})x(\\d{1,6})$"));
    const QRegularExpressionMatch m = re.match(text);
    if (!m.hasMatch())
        return false;
    const quint32 w = m.captured(1).toUInt();
    const quint32 h = m.captured(2).toUInt();
    if (w == 0 || h == 0 || w > MaxSide || h > MaxSide)
        return false;
    width = w;
    height = h;
    return true;
}

namespace {

// qlarrun's options, declared once; parse() reads them in steps.
struct SxOptionSet
{
    Q_DECLARE_TR_FUNCTIONS(CxCommandLine)
public:
    static QCommandLineOption flag(const char* name, const QString& description)
    {
        return QCommandLineOption(QString::fromLatin1(name), description);
    }
    static QCommandLineOption valued(const char* name, const QString& description, const QString& valueName)
    {
        return QCommandLineOption(QString::fromLatin1(name), description, valueName);
    }

    const QCommandLineOption help{QStringList{QStringLiteral("h"), QStringLiteral("help")}, tr("Shows this help.")};
    const QCommandLineOption version = flag("version", tr("Shows the version."));
    const QCommandLineOption list = flag("list", tr("Lists the nodes: name, unique id and help, tab-separated."));
    const QCommandLineOption describe =
        valued("describe", tr("Shows a node's help and its default settings as XML."), tr("node"));
    const QCommandLineOption plugins =
        valued("plugins", tr("Loads plug-ins from <dir> (default: $QLAR_PLUGIN_DIR, else the build tree's)."),
               tr("dir"));
    const QCommandLineOption chain = valued("chain", tr("Loads the chain from a chain document."), tr("file"));
    const QCommandLineOption node =
        valued("node", tr("Appends a node, e.g. \"Extract Channel:channelIdx=1\"; repeatable."),
               tr("name[:key=value...]"));
    const QCommandLineOption saveChain =
        valued("save-chain", tr("Writes the built chain as a chain document."), tr("file"));
    const QCommandLineOption camera =
        valued("camera",
               tr("Built-in camera: %1 (default bayer8).").arg(CxInputFactory::cameraKinds().join(QLatin1Char('|'))),
               tr("kind"));
    const QCommandLineOption size = valued("size", tr("Camera frame size (default 640x480)."), tr("WxH"));
    const QCommandLineOption seed = valued("seed", tr("Noise seed of the camera."), tr("n"));
    const QCommandLineOption frames =
        valued("frames", tr("Frames to run (default: 8 from the camera, every file)."), tr("n"));
    const QCommandLineOption cfa = valued("cfa",
                                          tr("Filter array: 1..6 for the Bayer cameras; 0..7 for files (7 needs a "
                                             "hyperspectral description)."),
                                          tr("n"));
    const QCommandLineOption bits = valued("bits", tr("Significant bits per sample."), tr("n"));
    const QCommandLineOption raw =
        valued("raw", tr("Reads every input as a raw one-channel frame of this size."), tr("WxH"));
    const QCommandLineOption rawType =
        valued("raw-type", tr("Sample type of raw frames: %1 (default u8).").arg(RawIo::typeNames()), tr("type"));
    const QCommandLineOption cameraFile =
        valued("camera-file", tr("Camera description (filter array, significant bits, hyperspectral layout)."),
               tr("file"));
    const QCommandLineOption numbers =
        flag("numbers-from-names", tr("Takes each frame number from the last number in its file name."));
    const QCommandLineOption live = flag("live", tr("Treats the frames of picture files as live frames (default for "
                                                    "a sequence of frames)."));
    const QCommandLineOption still = flag("static", tr("Treats the frames of picture files as static pictures "
                                                       "(default for a single picture)."));
    const QCommandLineOption out = valued("out", tr("Writes the outputs into <dir> as frame_NNNNNN.tif."), tr("dir"));
    const QCommandLineOption png = flag("png", tr("Also writes frame_NNNNNN.png for 8- and 16-bit outputs."));
    const QCommandLineOption compress = flag("compress", tr("Writes deflate-compressed TIFFs."));
    const QCommandLineOption summary = flag("summary", tr("Prints one line per output: frame, size, type, channels, "
                                                          "min, max, mean (also with --quiet)."));
    const QCommandLineOption strict = flag("strict", tr("Fails (status 5) when a node passed frames on unprocessed or "
                                                        "dropped them, or an output was empty or not writable."));
    const QCommandLineOption quiet = flag("quiet", tr("Prints errors only; no progress bar."));

    QList<QCommandLineOption> all() const
    {
        return {help, version, list, describe, plugins, chain, node, saveChain, camera, size, seed, frames, cfa,
                bits, raw, rawType, cameraFile, numbers, live, still, out, png, compress, summary, strict, quiet};
    }

    static QString description()
    {
        QString demonstration;
        for (const SxDefaultChain& c : DefaultChains)
            demonstration += QStringLiteral("  %1/%2: %3\n")
                                 .arg(QLatin1String(DefaultRunFolder), QLatin1String(c.folder), tr(c.label));
        return tr("Runs a processing chain of plug-in nodes over picture files or the built-in\n"
                  "camera and writes every output as a TIFF with its exact samples (and PNG on\n"
                  "request), named by frame number.\n"
                  "\n"
                  "Without any argument it runs the demonstration over the Bayer camera\n"
                  "(640x480, 8 frames):\n")
            + demonstration
            + tr("\n"
                 "Inputs are TIFF (8/16/32-bit integers, 32-bit float; 1, 3 or 4 channels),\n"
                 "PNG (8/16-bit), binary PGM/PPM, or raw frames (--raw); folders and patterns\n"
                 "are read in name order (frame_9 before frame_10).\n"
                 "\n")
            + CxCommandLine::exitStatusHelp();
    }

    // What to do and where to write: everything but the input.
    ExExitCode readRun(const QCommandLineParser& parser, SxRunOptions& options, QString* text) const
    {
        options.action = parser.isSet(list)       ? SxRunOptions::ActionList
                         : parser.isSet(describe) ? SxRunOptions::ActionDescribe
                                                  : SxRunOptions::ActionRun;
        options.describeNode = parser.value(describe);
        options.quiet = parser.isSet(quiet);
        options.strict = parser.isSet(strict);
        options.pluginDir = parser.value(plugins);
        options.chainFile = parser.value(chain);
        options.saveChainFile = parser.value(saveChain);
        options.output.folder = parser.value(out);
        options.output.png = parser.isSet(png);
        options.output.deflate = parser.isSet(compress);
        options.output.summary = parser.isSet(summary);
        for (const QString& value : parser.values(node)) {
            SxNodeRequest request;
            if (!CxChainBuilder::parseNodeRequest(value, request, text))
                return ExitUsage;
            options.nodes.append(request);
        }
        return ExitOk;
    }

    // The frames: picture files or the camera, and the options that only
    // one of the two takes.
    ExExitCode readInput(const QCommandLineParser& parser, SxInputRequest& input, QString* text) const
    {
        const auto usage = [text](const QString& message) {
            *text = message;
            return ExitUsage;
        };
        // value stays untouched when the option is not given.
        const auto number = [&](const QCommandLineOption& option, qint64 low, qint64 high, auto& value,
                                const QString& expected) {
            if (!parser.isSet(option))
                return true;
            bool ok = false;
            const qint64 n = parser.value(option).toLongLong(&ok);
            if (!ok || n < low || n > high) {
                *text = QStringLiteral("--%1 %2: %3").arg(option.names().first(), parser.value(option), expected);
                return false;
            }
            value = std::remove_reference_t<decltype(value)>(n);
            return true;
        };

        input.inputs = parser.positionalArguments();
        const bool files = input.readsFiles();
        for (const QCommandLineOption* cameraOnly : {&camera, &size, &seed}) {
            if (files && parser.isSet(*cameraOnly))
                return usage(
                    tr("--%1 is for the built-in camera, not for picture files").arg(cameraOnly->names().first()));
        }
        for (const QCommandLineOption* filesOnly : {&raw, &rawType, &numbers, &live, &still}) {
            if (!files && parser.isSet(*filesOnly))
                return usage(tr("--%1 needs picture files to read").arg(filesOnly->names().first()));
        }
        if (parser.isSet(live) && parser.isSet(still))
            return usage(tr("--live and --static exclude each other"));
        if (parser.isSet(live))
            input.liveness = SxInputRequest::LivenessLive;
        else if (parser.isSet(still))
            input.liveness = SxInputRequest::LivenessStatic;
        if (parser.isSet(camera))
            input.camera = parser.value(camera);
        if (parser.isSet(size) && !CxCommandLine::parseSize(parser.value(size), input.width, input.height))
            return usage(tr("--size %1: expected WIDTHxHEIGHT, each 1 to %2").arg(parser.value(size)).arg(MaxSide));
        if (!number(frames, 1, std::numeric_limits<qint32>::max(), input.frames, tr("expected a positive number"))
            || !number(seed, 0, std::numeric_limits<quint32>::max(), input.seed,
                       tr("expected a number from 0 to 4294967295"))
            || !number(cfa, 0, CFA_HSI_MOSAIC, input.cfa, tr("the filter array must be 0 to 7"))
            || !number(bits, 1, 32, input.bitsPerSample, tr("expected 1 to 32")))
            return ExitUsage;
        input.cameraFile = parser.value(cameraFile);
        input.frameNumbersFromNames = parser.isSet(numbers);
        if (parser.isSet(raw)) {
            input.raw = true;
            if (!CxCommandLine::parseSize(parser.value(raw), input.rawFormat.width, input.rawFormat.height))
                return usage(tr("--raw %1: expected WIDTHxHEIGHT, each 1 to %2").arg(parser.value(raw)).arg(MaxSide));
        }
        if (parser.isSet(rawType)) {
            if (!input.raw)
                return usage(tr("--raw-type needs --raw WIDTHxHEIGHT"));
            input.rawFormat.dataType = RawIo::typeFromName(parser.value(rawType));
            if (input.rawFormat.dataType == IDT_UNKNOWN)
                return usage(tr("--raw-type %1: expected one of %2").arg(parser.value(rawType), RawIo::typeNames()));
        }

        // Camera options are checked now, so that a typo is reported before
        // any plug-in is loaded; a camera description can change what fits,
        // so with one the check waits until it is read.
        if (!files && input.cameraFile.isEmpty()) {
            CxSyntheticCamera::SxConfig config;
            if (!CxInputFactory::cameraConfig(input, nullptr, config, text))
                return ExitUsage;
        }
        return ExitOk;
    }
};

} // namespace

ExExitCode CxCommandLine::parse(const QStringList& arguments, SxRunOptions& options, QString* text)
{
    options = SxRunOptions();
    if (arguments.size() <= 1) {
        options.defaultRun = true;
        return ExitOk;
    }

    const SxOptionSet set;
    QCommandLineParser parser;
    parser.setApplicationDescription(SxOptionSet::description());
    parser.addPositionalArgument(QStringLiteral("inputs"),
                                 tr("Picture files, folders or patterns such as \"frames/*.tif\"; none: the camera."),
                                 tr("[inputs...]"));
    parser.addOptions(set.all());
    if (!parser.parse(arguments)) {
        *text = parser.errorText();
        return ExitUsage;
    }
    if (parser.isSet(set.help)) {
        options.action = SxRunOptions::ActionHelp;
        *text = parser.helpText();
        return ExitOk;
    }
    if (parser.isSet(set.version)) {
        int major = 0, minor = 0, patch = 0;
        QlarCoreVersion(major, minor, patch);
        options.action = SxRunOptions::ActionVersion;
        *text = tr("qlarrun with QlarCore %1.%2.%3").arg(major).arg(minor).arg(patch);
        return ExitOk;
    }
    const ExExitCode run = set.readRun(parser, options, text);
    return run != ExitOk ? run : set.readInput(parser, options.input, text);
}

bool CxCommandLine::settle(const char* program, ExExitCode parsed, SxRunOptions::ExAction action,
                           const QString& text, int& exitCode)
{
    if (parsed != ExitOk) {
        QTextStream(stderr) << program << ": " << text
                            << tr(" (%1 --help shows the options)").arg(QLatin1String(program)) << '\n';
        exitCode = parsed;
        return false;
    }
    if (action == SxRunOptions::ActionHelp || action == SxRunOptions::ActionVersion) {
        QTextStream(stdout) << text << '\n';
        exitCode = ExitOk;
        return false;
    }
    return true;
}
