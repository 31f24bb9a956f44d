#include "ChainBuilder.h"

#include <CxChainDocument.h>
#include <CxChainable.h>
#include <CxRTTI.h>
#include <SxCameraDescription.h>

#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>
#include <QtXml/QDomDocument>

namespace {

// Anything else would make the saved chain document malformed.
bool isAttributeName(const QString& key)
{
    static const QRegularExpression re(QStringLiteral("^[A-Za-z_][A-Za-z0-9_.-]*$"));
    return re.match(key).hasMatch();
}

QDomElement savedSettings(const CxChainable* node, QDomDocument& doc)
{
    QDomElement element = doc.createElement(QString::fromLatin1(CxChainDocument::NodeElement));
    doc.appendChild(element);
    node->saveSettings(doc, element);
    return element;
}

} // namespace

QString namingFile(const QString& path, const QString& message)
{
    return message.contains(path) ? message : QStringLiteral("%1: %2").arg(path, message);
}

bool CxChainBuilder::parseNodeRequest(const QString& text, SxNodeRequest& request, QString* error)
{
    request = SxNodeRequest();
    const QStringList parts = text.split(QLatin1Char(':'));
    request.name = parts.first().trimmed();
    if (request.name.isEmpty()) {
        *error = tr("--node \"%1\": the node name is missing").arg(text);
        return false;
    }
    for (int i = 1; i < parts.size(); ++i) {
        const QString& part = parts.at(i);
        const int eq = part.indexOf(QLatin1Char('='));
        const QString key = part.left(eq).trimmed();
        if (eq < 0 || !isAttributeName(key)) {
            *error = tr("node \"%1\": \"%2\" is not a key=value setting").arg(request.name, part);
            return false;
        }
        // Values stay as typed: the node decides what its text means.
        request.settings.append(qMakePair(key, part.mid(eq + 1)));
    }
    return true;
}

CxChainable* CxChainBuilder::createNode(const QString& name, QString* error)
{
    CxRTTI* rtti = CxRTTI::instance();
    CxChainable* node = rtti->createChainableByCustomName(name);
    if (!node)
        node = rtti->createChainableByUniqueId(name);
    if (!node)
        *error = tr("unknown node \"%1\" (qlarrun --list shows the nodes)").arg(name);
    return node;
}

ExExitCode CxChainBuilder::applySettings(CxChainable* node, const SxNodeRequest& request, QString* error)
{
    if (request.settings.isEmpty())
        return ExitOk;
    // Starting from what the node saves keeps the settings not given as they
    // are, whatever the node's loader does with a missing attribute, and
    // tells which keys the node knows.
    QDomDocument doc;
    QDomElement element = savedSettings(node, doc);
    for (const auto& setting : request.settings) {
        if (!element.hasAttribute(setting.first)) {
            QStringList known;
            const QDomNamedNodeMap attributes = element.attributes();
            for (int i = 0; i < attributes.count(); ++i)
                known << attributes.item(i).nodeName();
            known.sort();
            *error = tr("node \"%1\" has no setting \"%2\" (it has: %3)")
                         .arg(request.name, setting.first, known.join(QLatin1String(", ")));
            return ExitUsage;
        }
    }
    for (const auto& setting : request.settings)
        element.setAttribute(setting.first, setting.second);
    node->loadSettings(element);

    // A node reads text it cannot convert as 0; refuse rather than run with
    // a value nobody asked for. "02" and "2", "0.50" and "0.5" are the same.
    QDomDocument checkDoc;
    const QDomElement stored = savedSettings(node, checkDoc);
    for (const auto& setting : request.settings) {
        const QString given = element.attribute(setting.first);
        const QString taken = stored.attribute(setting.first);
        bool givenIsNumber = false, takenIsNumber = false;
        const double givenValue = given.trimmed().toDouble(&givenIsNumber);
        const double takenValue = taken.toDouble(&takenIsNumber);
        if (taken == given || (givenIsNumber && takenIsNumber && givenValue == takenValue))
            continue;
        *error = tr("node \"%1\": %2=%3 is not a value it takes (it would run with %4)")
                     .arg(request.name, setting.first, given, taken);
        return ExitUsage;
    }
    return ExitOk;
}

ExExitCode CxChainBuilder::build(const QString& chainFile, const QList<SxNodeRequest>& requests,
                                 QList<CxChainable*>& nodes, SxCameraDescription& input, QString* error)
{
    QList<CxChainable*> made;
    input = SxCameraDescription();
    if (!chainFile.isEmpty()) {
        const QFileInfo info(chainFile);
        if (!info.exists()) {
            *error = tr("%1: no such chain document").arg(chainFile);
            return ExitInput;
        }
        if (!info.isFile() || !info.isReadable()) {
            *error = tr("%1: cannot read the chain document").arg(chainFile);
            return ExitInput;
        }
        QString docError;
        made = CxChainDocument::loadFromFile(chainFile, &docError, &input);
        if (!docError.isEmpty()) {
            qDeleteAll(made);
            *error = namingFile(chainFile, docError);
            return ExitInput;
        }
    }
    for (const SxNodeRequest& request : requests) {
        CxChainable* node = createNode(request.name, error);
        if (!node) {
            qDeleteAll(made);
            return ExitInput;
        }
        made.append(node);
        const ExExitCode applied = applySettings(node, request, error);
        if (applied != ExitOk) {
            qDeleteAll(made);
            return applied;
        }
    }
    nodes = made;
    return ExitOk;
}
