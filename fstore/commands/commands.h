// All commands, in the order in which the help lists them.
#ifndef FSTORE_COMMANDS_COMMANDS_H
#define FSTORE_COMMANDS_COMMANDS_H

#include "fstore/commands/cli.h"

namespace fstore {

void addInit(Cli& cli);
void addGenerate(Cli& cli);
void addRequest(Cli& cli);
void addImport(Cli& cli);
void addLs(Cli& cli);
void addShow(Cli& cli);
void addTree(Cli& cli);
void addVerify(Cli& cli);
void addMetrics(Cli& cli);
void addReport(Cli& cli);
void addExport(Cli& cli);
void addRef(Cli& cli);
void addDeploy(Cli& cli);
void addRenewHook(Cli& cli);
void addOpensslConf(Cli& cli);
void addSet(Cli& cli);
void addUnset(Cli& cli);
void addMv(Cli& cli);
void addCp(Cli& cli);
void addMkdir(Cli& cli);
void addRm(Cli& cli);
void addPrune(Cli& cli);
void addPut(Cli& cli);
void addGet(Cli& cli);
void addEdit(Cli& cli);
void addKey(Cli& cli);
void addPasswd(Cli& cli);
void addCheck(Cli& cli);
void addBackup(Cli& cli);
void addRestore(Cli& cli);
void addCompletion(Cli& cli);
void addDump(Cli& cli);
void addInfo(Cli& cli);
void addHelp(Cli& cli);

inline void addCommands(Cli& cli) {
    addInit(cli);
    addGenerate(cli);
    addRequest(cli);
    addImport(cli);
    addLs(cli);
    addShow(cli);
    addTree(cli);
    addVerify(cli);
    addMetrics(cli);
    addReport(cli);
    addExport(cli);
    addRef(cli);
    addDeploy(cli);
    addRenewHook(cli);
    addOpensslConf(cli);
    addSet(cli);
    addUnset(cli);
    addMv(cli);
    addCp(cli);
    addMkdir(cli);
    addRm(cli);
    addPrune(cli);
    addPut(cli);
    addGet(cli);
    addEdit(cli);
    addKey(cli);
    addPasswd(cli);
    addCheck(cli);
    addBackup(cli);
    addRestore(cli);
    addCompletion(cli);
    addDump(cli);
    addInfo(cli);
    addHelp(cli);
}

}  // namespace fstore

#endif  // FSTORE_COMMANDS_COMMANDS_H
