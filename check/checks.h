// The checks, by file; checklist.cpp has their order.
#pragma once

#include "check/outcome.h"
#include "check/report.h"

#include <span>

struct Process;
struct Subject;

/// In the order of their dependencies.
std::span<const Check> checkList();

// identitychecks.cpp
Outcome checkModelNumber(Subject &subject);
Outcome checkModelText(Subject &subject);
Outcome checkAmplifierType(Subject &subject);
Outcome checkPackageVersion(Subject &subject);
Outcome checkKernelVersion(Subject &subject);
Outcome checkDeviceTreeVersion(Subject &subject);

// servicechecks.cpp
Outcome checkDataService(Subject &subject);
Outcome checkSnmpSettings(Subject &subject);
Outcome checkSnmpAccess(Subject &subject);
Outcome checkDeviceValues(Subject &subject);

// daemonchecks.cpp
/// The part of a hint that lets kvsnmp restart snmpd.
QString restartHint();
/// The outcome for a stopped process.
Outcome stoppedProcess(const Process &process);
Outcome checkKvsnmpProcess(Subject &subject);
Outcome checkKvsnmpPidFile(Subject &subject);
Outcome checkSystemBus(Subject &subject);
Outcome checkAmplifierMonitor(Subject &subject);
Outcome checkGpioTree(Subject &subject);
Outcome checkCommands(Subject &subject);

// snmpdchecks.cpp
Outcome checkSnmpdProgram(Subject &subject);
Outcome checkSnmpdConf(Subject &subject);
Outcome checkSnmpdConfSettings(Subject &subject);
Outcome checkSnmpdConfAccepted(Subject &subject);
Outcome checkSnmpdProcess(Subject &subject);
Outcome checkSnmpdPidFile(Subject &subject);
Outcome checkHealthProbe(Subject &subject);

// answerchecks.cpp
Outcome checkSnmpdAnswer(Subject &subject);
Outcome checkAgentxSocket(Subject &subject);
Outcome checkSubAgent(Subject &subject);
Outcome checkModelNumberServed(Subject &subject);

// trapchecks.cpp
Outcome checkTrapsEnabled(Subject &subject);
Outcome checkTrapReceivers(Subject &subject);
