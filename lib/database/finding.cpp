#include "lib/database/finding.h"

#include "format/layout.h"

namespace fstore {

using FindingKind = Finding::Kind;
using Repair = Finding::Repair;

const char* nameOf(FindingKind kind) {
    switch (kind) {
        case FindingKind::kUnnamedBody:
            return "unnamed-body";
        case FindingKind::kNewDescriptor:
            return "new-descriptor";
        case FindingKind::kSavedDescriptor:
            return "saved-descriptor";
        case FindingKind::kRemoved:
            return "removed";
        case FindingKind::kUnfinishedCopy:
            return "unfinished-copy";
        case FindingKind::kMissingFolder:
            return "missing-folder";
        case FindingKind::kConflict:
            return "conflict";
        case FindingKind::kDamaged:
            return "damaged";
        case FindingKind::kContradicted:
            return "contradicted";
        case FindingKind::kIndex:
            return "index";
        case FindingKind::kUnreadable:
            return "unreadable";
        case FindingKind::kUnknownFile:
            return "unknown-file";
        case FindingKind::kMovedAside:
            return "moved-aside";
        case FindingKind::kUnfinishedChange:
            return "unfinished-change";
        case FindingKind::kUnlockCopy:
            return "unlock-copy";
        case FindingKind::kUnlockConflict:
            return "unlock-conflict";
        case FindingKind::kKeyRecord:
            return "key-record";
        case FindingKind::kPrevious:
            break;
    }
    return "previous";
}

const char* nameOf(Repair repair) {
    switch (repair) {
        case Repair::kDelete:
            return "delete";
        case Repair::kMoveAway:
            return "move-away";
        case Repair::kPutBack:
            return "put-back";
        case Repair::kDropCopy:
            return "drop-copy";
        case Repair::kMakeFolder:
            return "make-folder";
        case Repair::kMoveBack:
            return "move-back";
        case Repair::kFinish:
            return "finish";
        case Repair::kUndo:
            return "undo";
        case Repair::kWriteCopy:
            return "write-copy";
        case Repair::kSettleCopies:
            return "settle-copies";
        case Repair::kWriteKey:
            return "write-key";
        case Repair::kNone:
            break;
    }
    return "none";
}

std::string planOf(Repair repair) {
    switch (repair) {
        case Repair::kDelete:
            return "will be deleted";
        case Repair::kMoveAway:
            return std::string("will be moved to ") + layout::kLost;
        case Repair::kPutBack:
            return "will be put back";
        case Repair::kDropCopy:
            return "will be deleted with its contents";
        case Repair::kMakeFolder:
            return "will be created";
        case Repair::kMoveBack:
            return "will be moved back";
        case Repair::kFinish:
            return "will be finished";
        case Repair::kUndo:
            return "will be undone, so that the secrets from before it stay in force";
        case Repair::kWriteCopy:
            return "will be written again from the other";
        case Repair::kSettleCopies:
            return "will both be written as ./kdf says";
        case Repair::kWriteKey:
            return "will be written again when the records show that the password is theirs";
        case Repair::kNone:
            break;
    }
    return "";
}

}  // namespace fstore
