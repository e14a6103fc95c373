// The alternative, blocking loop of the agent. The program neither constructs nor starts it: the agent and the table
// records belong to the main thread.
#pragma once

#include <QThread>

class KvSnmpSelectControl : public QThread {
    Q_OBJECT

public:
    explicit KvSnmpSelectControl(QObject *parent = nullptr);

    /// Prints the result of one pass of the agent library, with errno if it failed.
    static void printResult(int result);

protected:
    /// Never returns.
    [[noreturn]] void run() override;
};
