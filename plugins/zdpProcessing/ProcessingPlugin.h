#pragma once
#include <CxPlugin.h>

#include <QtCore/QObject>

// The entry object of the processing plug-in: describes the plug-in to the
// host and registers the node classes with the host's class registry.
class CxProcessingPlugin : public QObject, public CxPlugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "de.korvel.Vistrel.CxProcessingPlugin")
    Q_INTERFACES(CxPlugin)
public:
    explicit CxProcessingPlugin(QObject* parent = nullptr);
    ~CxProcessingPlugin() override;

    bool init() override;
    QString name() const override;
    QString author() const override;
    QString description() const override;
    void version(int& major, int& minor, int& patch) const override;
    using CxPlugin::version;
    QString website() const override;
};
