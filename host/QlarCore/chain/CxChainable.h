#pragma once
#include "QlarCoreExport.h"

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QRecursiveMutex>
#include <QtCore/QString>

#include <atomic>
#include <functional>

class QDomDocument;
class QDomElement;
class QWidget;
class IxChainData;
class CxChain;

// A chain element. The chain calls processData on one of its worker threads;
// widgets and quick buttons call the setters on the GUI thread and go through
// stop / set / start (the setter with restart) while the chain runs.
//
// The order of the virtual functions is part of the contract with plug-ins
// built against this header: never reorder, insert or remove one.
class QLARCORE_EXPORT CxChainable : public QObject
{
    Q_OBJECT
public:
    // Descriptive bits a node passes to its base constructor. The runtime does
    // not act on them; the chain editor uses them to group nodes.
    enum ExChainableFlag {
        FlagNone = 0x0,
        FlagProducesPictures = 0x1,   // emits pictures of its own (from its pool)
        FlagMosaicAware = 0x4,        // understands raw mosaic layouts
        FlagProcessor = 0x8           // sits between a source and a sink
    };
    Q_DECLARE_FLAGS(ExChainableFlags, ExChainableFlag)

    // Values of state(). A node returns null from processData while its state
    // is StateStopping: the chain is being stopped and the packets still in
    // flight are drained without work.
    enum ExState { StateIdle = 0, StateStopping = 1, StateRunning = 2 };

    // One quick button shown on the node in the chain view.
    class QLARCORE_EXPORT CxSimpleStateConfigButton
    {
    public:
        CxSimpleStateConfigButton(const QString& label, int id, bool checkable, bool checked)
            : m_label(label), m_id(id), m_checkable(checkable), m_checked(checked) {}
        QString label() const { return m_label; }
        int id() const { return m_id; }
        bool isCheckable() const { return m_checkable; }
        bool isChecked() const { return m_checked; }

    private:
        QString m_label;
        int m_id;
        bool m_checkable;
        bool m_checked;
    };

    explicit CxChainable(ExChainableFlags flags = FlagNone);
    ~CxChainable() override;

    // ---- virtual operations, in contract order ----
    virtual QString title() const;                                           // 1
    virtual bool acceptsDataFrom(CxChainable* predecessor);                  // 2
    virtual int buffersCountInMemoryPool() const;                            // 3
    virtual CxChainable* clone();                                            // 4
    virtual bool init(QString* errorMessage);                                // 5
    virtual bool initialized();                                              // 6
    virtual bool isDataConsumer() const;                                     // 7
    virtual int state();                                                     // 8
    virtual IxChainData* data(QObject* consumer, int index);                 // 9
    virtual void discardData(QObject* consumer, int index);                  // 10
    virtual IxChainData* latestData(QObject* consumer);                      // 11
    virtual void discardLatestData(QObject* consumer);                       // 12
    virtual QWidget* configurationWidget();                                  // 13
    virtual bool hasConfigurationWidget() const;                             // 14
    virtual void simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                          bool& hasButtons);                 // 15
    virtual void simpleStateConfigButtonPressed(int id);                     // 16
    virtual bool saveSettings(QDomDocument& doc, QDomElement& element) const;// 17
    virtual bool loadSettings(const QDomElement& element);                   // 18
    virtual bool hasHelp() const;                                            // 19
    virtual QString help(QString& anchor);                                   // 20
    virtual void setMaxFps(double fps);                                      // 21
    virtual double maxFps() const;                                           // 22
    virtual void setupStart();                                               // 23
    virtual void setupStop();                                                // 24
    virtual int recommendedAdditionalBuffersInMemoryPool() const;            // 25
    virtual IxChainData* processData(IxChainData* data);                     // 26
    virtual void addSuccessor(CxChainable* c);                               // 27
    virtual void addPrecedessor(CxChainable* c);                             // 28
    virtual void removeSuccessor(CxChainable* c);                            // 29
    virtual void removePrecedessor(CxChainable* c);                          // 30
    virtual void clearSuccesors();                                           // 31
    virtual void clearPrecedessors();                                        // 32
    virtual void addToOutputData(IxChainData* data);                         // 33
    virtual void onFreePoolBuffers(void* pool);                              // 34
    virtual void onDataAvailable(CxChainable* from, int count);              // 35
    virtual void run();                                                      // 36
    virtual void onChainStarted(CxChain* chain);                             // 37
    virtual void onChainStopped(CxChain* chain);                             // 38

    // ---- non-virtual host members ----
    CxChain* chain() const { return m_chain; }
    ExChainableFlags chainableFlags() const { return m_flags; }
    QString errorMessage() const;
    void setErrorMessage(const QString& message);
    void clearErrorMessage() { setErrorMessage(QString()); }
    QList<CxChainable*> successors() const;
    QList<CxChainable*> predecessors() const;
    // The per-node lock that plain getters and setters may hold around a
    // single field access.
    QRecursiveMutex* nodeMutex() const { return &m_nodeMutex; }

    // Host side: the chain that runs this node, and its state.
    void setChain(CxChain* chain) { m_chain = chain; }
    void setState(ExState s) { m_state.store(s, std::memory_order_release); }

    // Most packets kept by addToOutputData; older ones are dropped first.
    static constexpr int MaxStoredOutputs = 8;

protected:
    // The setter with restart: with restart set and a running chain, the
    // chain is stopped, the value stored and the chain started again, so that
    // formats are negotiated anew and processData never sees half a change.
    void changeSetting(bool restart, const std::function<void()>& store);

signals:
    void titleChanged(CxChainable* node);
    void errorMessageChanged(CxChainable* node);
    void dataAvailable(CxChainable* node, int count);

private:
    ExChainableFlags m_flags;
    CxChain* m_chain = nullptr;
    std::atomic<int> m_state{StateIdle};
    double m_maxFps = 0.0;
    mutable QMutex m_lock;              // error text, links and stored outputs
    QString m_errorMessage;
    QList<CxChainable*> m_successors;
    QList<CxChainable*> m_predecessors;
    QList<IxChainData*> m_outputs;
    mutable QRecursiveMutex m_nodeMutex;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(CxChainable::ExChainableFlags)
