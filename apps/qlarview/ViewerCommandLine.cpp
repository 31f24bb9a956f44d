#include "ViewerCommandLine.h"

namespace {

// Options of qlarrun's that write files: a viewer run writes only what the
// user records.
const char* const OutputOptions[] = {"out", "o", "png", "compress", "summary", "save-chain", "strict", "quiet",
                                     "list", "describe"};

} // namespace

ExExitCode CxViewerCommandLine::parse(const QStringList& arguments, SxViewerOptions& options, QString* text)
{
    // The viewer's own options are taken out first; the rest is qlarrun's
    // grammar, parsed by qlarrun's own parser so both read the same.
    QStringList rest;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& arg = arguments[i];
        QString name = arg.startsWith(QLatin1String("--")) ? arg.mid(2) : QString();
        QString value;
        const qsizetype eq = name.indexOf(QLatin1Char('='));
        bool inlineValue = eq >= 0;
        if (inlineValue) {
            value = name.mid(eq + 1);
            name = name.left(eq);
        }
        const auto takeValue = [&]() -> bool {
            if (inlineValue)
                return true;
            if (i + 1 >= arguments.size())
                return false;
            value = arguments[++i];
            return true;
        };
        if (name == QLatin1String("genicam") || name == QLatin1String("fps") || name == QLatin1String("stage")) {
            if (!takeValue()) {
                *text = tr("--%1 needs a value").arg(name);
                return ExitUsage;
            }
            bool ok = true;
            if (name == QLatin1String("genicam"))
                options.genicam = value.isEmpty() ? QStringLiteral("first") : value;
            else if (name == QLatin1String("fps"))
                ok = (options.fps = value.toDouble(&ok), ok) && options.fps >= 0.0 && options.fps <= 10000.0;
            else
                ok = (options.stage = value.toInt(&ok), ok) && options.stage >= -1;
            if (!ok) {
                *text = tr("--%1 %2: not a value it takes").arg(name, value);
                return ExitUsage;
            }
            continue;
        }
        if (name == QLatin1String("loop") && !inlineValue) {
            options.loop = true;
            continue;
        }
        if (name == QLatin1String("paused") && !inlineValue) {
            options.paused = true;
            continue;
        }
        for (const char* output : OutputOptions) {
            if (name == QLatin1String(output) || (arg.size() == 2 && arg[1] == QLatin1Char(output[0]) && output[1] == 0)) {
                *text = tr("%1 is for qlarrun; the viewer records with its Record button").arg(arg);
                return ExitUsage;
            }
        }
        rest << arg;
    }
    const ExExitCode parsed = CxCommandLine::parse(rest, options.run, text);
    if (parsed != ExitOk)
        return parsed;
    if (options.run.action == SxRunOptions::ActionVersion)
        text->replace(QLatin1String("qlarrun"), QLatin1String("qlarview"));
    if (options.run.action == SxRunOptions::ActionHelp) {
        *text = tr("Usage: qlarview [options] [inputs...]\n"
                   "A live viewer for processing chains: the built-in camera, picture files or a\n"
                   "GenICam camera, the chain's nodes with their panels and quick buttons, any\n"
                   "stage's pictures, recording.\n\n"
                   "Its own options:\n"
                   "  --genicam ID   opens a GenICam camera (\"first\": the first found, \"fake\":\n"
                   "                 the library's built-in test camera)\n"
                   "  --fps N        frames a second of the built-in camera and the file player\n"
                   "                 (default 30; 0: as fast as the chain takes them)\n"
                   "  --stage N      shows the output of node N (0 is the first; -1 the input)\n"
                   "  --loop         plays picture files again from the start\n"
                   "  --paused       builds the chain without starting it\n\n"
                   "These mean what they mean to qlarrun (qlarrun --help):\n"
                   "  --camera, --size, --seed, --frames, --cfa, --bits, --camera-file, --raw,\n"
                   "  --raw-type, --numbers-from-names, --live, --static, --chain, --node,\n"
                   "  --plugins, inputs.\n");
        return ExitOk;
    }
    if (!options.genicam.isEmpty() && options.run.input.readsFiles()) {
        *text = tr("--genicam and picture files exclude each other");
        return ExitUsage;
    }
    options.run.defaultRun = false;
    return ExitOk;
}
