#include "tests/crash/recording.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "store/record_disk.h"

namespace crash {
namespace {

void addOnce(std::vector<std::string>& list, const std::string& word) {
    if (std::find(list.begin(), list.end(), word) == list.end()) {
        list.push_back(word);
    }
}

void addStep(const Step& step, Question& question) {
    if (step.act == Act::kRecrypt) {  // of the password record its effect is asked for
        addOnce(question.passwords, step.password);
    } else if (!step.id.empty() && step.act != Act::kScan && !nameOf(step.id).empty() &&
               step.id != kPasswordId) {
        addOnce(question.ids, step.id);
    }
}

// Whether there is nothing more to do once this has failed.
bool endsProcess(Act act) {
    return act == Act::kPrepare || act == Act::kOpen || act == Act::kRecrypt;
}

Status run(Action& action, std::vector<fault::Event>& calls) {
    const fault::Recorder recorder;
    const Status status = action.run();
    const std::vector<fault::Event> events = recorder.events();
    calls.insert(calls.end(), events.begin(), events.end());
    return status;
}

// A reader among the steps finds what one after a crash would.
void checkReader(const Step& step, Action& action, const Allowed& allowed, Recording& recording) {
    const std::vector<Found>& states = allowed.records.at(step.id);
    const Found found = action.found();
    if (std::find(states.begin(), states.end(), found) == states.end()) {
        std::ostringstream text;
        text << step.id << " is read as " << found;
        recording.faults.push_back(text.str());
    }
}

}  // namespace

bool Recording::succeeded() const {
    for (std::size_t i = 0; i < workload.steps.size(); ++i) {
        const bool isRemoval = workload.steps[i].act == Act::kRemove;
        const bool isReading = workload.steps[i].act == Act::kRead;
        if (i >= statuses.size() || (statuses[i] != kOk && !isRemoval && !isReading)) {
            return false;
        }
    }
    return true;
}

Question questionOf(const Workload& workload) {
    Question question;
    question.passwords = {workload.start.password};
    for (const auto* const records : {&workload.start.records, &workload.start.foreign}) {
        for (const auto& [id, contents] : *records) {
            addOnce(question.ids, id);
        }
    }
    for (const Interrupted& interrupted : workload.start.interrupted) {
        addStep(interrupted.step, question);
    }
    for (const Step& step : workload.steps) {
        addStep(step, question);
    }
    return question;
}

Recording record(const Workload& workload, const std::optional<Fault>& fault, Names names) {
    Recording recording;
    recording.workload = workload;
    recording.question = questionOf(workload);
    clearCurrentFolder();
    make(workload.start);
    for (int used = 0; names == Names::kAreNew && used < 32; ++used) {
        (void)getUniqueName(nullptr, nullptr);  // by no process before this one
    }
    recording.start = readCurrentFolder();
    recording.baseline = recover(recording.question);
    recording.faults = recording.baseline.faults;
    if (recording.baseline.passwords.size() != 1) {
        throw std::runtime_error(workload.name + ": the start does not open");
    }
    clearCurrentFolder();
    writeCurrentFolder(recording.start);

    const Session session;
    std::string password = recording.baseline.passwords.front();
    if (workload.open && CMN_FILESTORE_S.open(password.c_str()) != kOk) {
        throw std::runtime_error(workload.name + ": the start does not open");
    }
    Oracle oracle(recording.baseline);
    recording.phases = {oracle.allowed()};
    recording.phaseAfter = {0};
    const fault::Recorder recorder(fault::kLastingCalls);
    const long before = fault::callCount(fault::kLastingCalls);
    const auto noLinks = linksOf(workload);
    std::optional<fault::FailingCall> failure;
    if (fault) {
        failure.emplace(fault->nth, fault->error, fault::Mode::kOnce, fault->calls);
    }
    for (const Step& step : workload.steps) {
        Action action(step, password);
        recording.lastStep = recording.phaseAfter.size() - 1;
        oracle.begin(step);
        recording.phases.push_back(oracle.allowed());
        const Status status = run(action, recording.everyCall);
        const auto made = static_cast<std::size_t>(fault::callCount(fault::kLastingCalls) - before);
        recording.phaseAfter.resize(std::max(made, recording.phaseAfter.size()),
                                    recording.phases.size() - 1);
        oracle.end(step, status);
        recording.statuses.push_back(status);
        if (step.act == Act::kRead && !fault) {
            checkReader(step, action, oracle.allowed(), recording);
        }
        recording.phases.push_back(oracle.allowed());
        if (made == recording.phaseAfter.size()) {
            recording.phaseAfter.push_back(recording.phases.size() - 1);
        }
        if (status != kOk && endsProcess(step.act)) {
            break;
        }
    }
    recording.calls = recorder.events();
    return recording;
}

}  // namespace crash
