// The alternative, blocking way of serving the agent. The program neither constructs nor starts it: the agent and the
// table records belong to the main thread.
#pragma once

#include <QThread>

class KvSnmpSelectControl : public QThread {
    Q_OBJECT

public:
    explicit KvSnmpSelectControl(QObject *parent = nullptr);

    /// Prints what one pass of the agent library returned; with errno when it failed.
    static void printResult(int result);

protected:
    /// Serves for ever.
    [[noreturn]] void run() override;
};
