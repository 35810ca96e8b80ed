#include "tests/crash/workloads.h"

#include <stdexcept>

#include "format/dsc_text.h"
#include "service/md5.h"
#include "tests/crash/tree.h"

namespace crash {
namespace {

using fault::Call;

// Long enough for a prefix to look like something.
std::string text(const std::string& word) {
    std::string all;
    for (int i = 0; i < 5; ++i) {
        all += word + " ";
    }
    return all;
}

Contents sealed(const std::string& word) {
    return {{{kTypeText, 1, word, false}, {kTypeBinary, 2, text(word), true}}, text(word), true};
}

Contents plain(const std::string& word) {
    return {{{kTypeText, 1, word, false}, {kTypeText, 2, text(word), false}}, text(word), false};
}

// Without a body.
Contents bare(const std::string& word) {
    return {{{kTypeText, 1, word, false}, {kTypeBinary, 2, text(word), true}}, std::nullopt, false};
}

Step write(const std::string& id, const Contents& contents) {
    return {Act::kWrite, id, contents};
}
Step removeIt(const std::string& id) {
    return {Act::kRemove, id};
}
Step readIt(const std::string& id) {
    return {Act::kRead, id};
}
Step recrypt(const std::string& password) {
    return {Act::kRecrypt, {}, {}, password};
}

const Step kPrepare{Act::kPrepare};
const Step kScan{Act::kScan, "keys"};

// Where an overwrite or a removal can break off so that something is left over.
Interrupted beforeMovingAside(const Step& step) {
    return {step, Call::kRename, 1};
}
Interrupted betweenRenames(const Step& step) {
    return {step, Call::kRename, 2};
}
Interrupted beforeDeleting(const Step& step) {
    return {step, Call::kRemove, 1};
}

Start with(const std::map<std::string, Contents>& records,
           const std::vector<Interrupted>& interrupted = {}) {
    Start start;
    start.records = records;
    start.interrupted = interrupted;
    return start;
}

const std::string kA = "keys/a";
const std::string kB = "keys/b";

std::string passwordDigest(const std::string& password) {
    std::string digest(16, '\0');
    (void)rk5_MD5Compute(nullptr, reinterpret_cast<unsigned char*>(digest.data()), password.data(),
                         sizeOf(password));
    return digest;
}

void addRecordWorkloads(std::vector<Workload>& all) {
    const Contents v1 = sealed("one");
    const Contents v2 = sealed("two");
    const Start none = with({{kB, v1}});
    const Start some = with({{kA, v1}, {kB, v1}});
    all.push_back({"first_write", none, {write(kA, v2)}});
    all.push_back({"first_write_plain", none, {write(kA, plain("two"))}});
    all.push_back({"first_write_without_body", none, {write(kA, bare("two"))}});
    all.push_back({"overwrite", some, {write(kA, v2)}});
    all.push_back({"overwrite_body_with_none", some, {write(kA, bare("two"))}});
    all.push_back({"overwrite_none_with_body", with({{kA, bare("one")}}), {write(kA, v2)}});
    all.push_back(
        {"overwrite_none_with_none", with({{kA, bare("one")}}), {write(kA, bare("two"))}});
    all.push_back({"overwrite_twice", some, {write(kA, v2), write(kA, plain("three"))}});
    all.push_back({"unnamed_write", some, {write("keys/", v2)}});
    all.push_back({"unnamed_writes", some, {write("keys/", v2), write("keys/", bare("three"))}});
    all.push_back({"remove", some, {removeIt(kA)}});
    all.push_back({"remove_without_body", with({{kA, bare("one")}}), {removeIt(kA)}});
    all.push_back({"write_after_remove", some, {removeIt(kA), write(kA, v2)}});
    all.push_back({"remove_after_write", some, {write(kA, v2), removeIt(kA)}});
}

// What an earlier death left over is met by each of the steps.
void addWorkloadsOnLeftovers(std::vector<Workload>& all) {
    const Step overwrite = write(kA, sealed("two"));
    const struct {
        const char* name;
        std::vector<Interrupted> interrupted;
    } leftovers[] = {
        {"new_descriptor", {beforeMovingAside(overwrite)}},
        {"no_descriptor", {betweenRenames(overwrite)}},
        {"both_descriptors", {beforeDeleting(overwrite)}},
        {"removed_descriptor", {beforeDeleting(removeIt(kA))}},
        {"all_kinds",
         {beforeDeleting(removeIt(kB)), beforeMovingAside(write(kB, bare("two"))),
          beforeDeleting(overwrite), betweenRenames(write(kA, plain("two again")))}},
    };
    for (const auto& leftover : leftovers) {
        const std::string name = std::string("with_") + leftover.name;
        const Start start = with({{kA, sealed("one")}, {kB, plain("one")}}, leftover.interrupted);
        all.push_back({"read_" + name, start, {readIt(kA), readIt(kB)}});
        all.push_back({"scan_" + name, start, {kScan}});
        all.push_back({"write_" + name, start, {write(kA, sealed("three"))}});
        all.push_back({"write_bare_" + name, start, {write(kA, bare("three"))}});
        all.push_back({"remove_" + name, start, {removeIt(kA)}});
        all.push_back({"scan_and_remove_" + name, start, {kScan, removeIt(kA)}});
        all.push_back({"unnamed_write_" + name, start, {write("keys/", sealed("three"))}});
    }
}

void addFolderWorkloads(std::vector<Workload>& all) {
    const std::map<std::string, Contents> records{{kA, sealed("one")}, {"settings/s", plain("s")}};
    Start empty;
    empty.prepared = false;
    empty.password = "";
    Start halfMade = empty;
    halfMade.interrupted = {{kPrepare, Call::kMkdir, 4}};
    const Interrupted swapBroken{recrypt("next"), Call::kRename, Interrupted::kLast};
    all.push_back({"prepare_fresh", empty, {kPrepare}, false});
    all.push_back({"prepare_half_made", halfMade, {kPrepare}, false});
    all.push_back({"prepare_again", with(records), {kPrepare}, false});
    all.push_back({"prepare_and_write",
                   empty,
                   {kPrepare, {Act::kOpen}, write(kA, sealed("one")), write(kA, bare("two"))},
                   false});
    all.push_back({"prepare_from_old_db",
                   with(records, {swapBroken}),
                   {kPrepare, {Act::kOpen, {}, {}, "secret"}, write(kA, sealed("two"))},
                   false});
    const Contents digest{{{kTypeBinary, 1, passwordDigest("secret"), false}}, {}, false};
    all.push_back({"open_with_password_record_aside",
                   with(records, {betweenRenames(write("key", digest))}),
                   {{Act::kOpen, {}, {}, "secret"}},
                   false});
    all.push_back({"open", with(records), {{Act::kOpen, {}, {}, "secret"}}, false});
}

void addPasswordWorkloads(std::vector<Workload>& all) {
    const std::map<std::string, Contents> records{{kA, sealed("one")},
                                                  {kB, plain("one")},
                                                  {"settings/s", bare("s")},
                                                  {"certificates/local/c", sealed("c")}};
    Start fromEmpty = with(records);
    fromEmpty.password = "";
    Start foreign = with({{kA, sealed("one")}, {"settings/s", bare("s")}});
    foreign.foreign = {{"keys/f", sealed("foreign")}, {"crls/g", bare("foreign")}};
    const auto diedAt = [&](Call call, int nth) {
        return with(records, {{recrypt("lost"), call, nth}});
    };
    const Start leftRecords = with(records, {beforeDeleting(write(kA, sealed("two"))),
                                             betweenRenames(write(kB, plain("two")))});
    all.push_back({"password_from_empty", fromEmpty, {recrypt("next")}});
    all.push_back({"password_to_new", with(records), {recrypt("next")}});
    all.push_back({"password_to_empty", with(records), {recrypt("")}});
    all.push_back({"password_while_closed", with(records), {recrypt("next")}, false});
    all.push_back({"password_twice", with(records), {recrypt("next"), recrypt("third")}});
    all.push_back({"password_with_broken_copy", diedAt(Call::kSyncfs, 1), {recrypt("next")}});
    all.push_back({"password_with_half_copy", diedAt(Call::kMkdir, 5), {recrypt("next")}});
    all.push_back({"password_with_record_leftovers", leftRecords, {recrypt("next")}});
    all.push_back({"password_with_foreign_records", foreign, {recrypt("next")}});
    all.push_back({"password_without_links", with(records), {recrypt("next")}, true, false});
    all.push_back(
        {"password_and_records",
         with(records),
         {write(kA, sealed("two")), recrypt("next"), write(kA, sealed("three")), removeIt(kB)}});
}

// The steps of sequences; `nth` tells what they write from what others do.
std::vector<Step> changes(const std::string& nth) {
    return {write(kA, sealed(nth)),     write(kA, bare(nth)), removeIt(kA),
            write(kB, sealed(nth)),     write(kB, bare(nth)), removeIt(kB),
            write("keys/", sealed(nth))};
}

// The steps of sequences, behind those that the workload has.
std::vector<Step> anySteps(const Workload& workload, const std::string& nth) {
    std::string password = workload.start.password;
    for (const Step& step : workload.steps) {
        password = step.act == Act::kRecrypt ? step.password : password;
    }
    std::vector<Step> steps = changes(nth);
    steps.insert(steps.end(), {readIt(kA),
                               kScan,
                               kPrepare,
                               {Act::kOpen, {}, {}, password},
                               recrypt(password == "next" ? workload.start.password : "next")});
    return steps;
}

void require(Status status, const std::string& what) {
    if (status != kOk) {
        throw std::runtime_error(what + ": status " + std::to_string(status));
    }
}

void writeAll(const std::map<std::string, Contents>& records) {
    for (const auto& [id, contents] : records) {
        aFileStore record = recordOf(id);
        fill(record, contents);
        require(record.write(), "write " + id);
    }
}

// How many calls of a kind the whole step makes; what it does is undone.
int countCalls(const Interrupted& interrupted, std::string password) {
    const Tree before = readCurrentFolder();
    const int count = fault::inChild([&] {
        const Session session;
        const Step open{Act::kOpen, {}, {}, password};
        (void)Action(open, password).run();
        Action action(interrupted.step, password);
        const fault::Recorder recorder({interrupted.call});
        (void)action.run();
        return static_cast<int>(recorder.events().size());
    });
    clearCurrentFolder();
    writeCurrentFolder(before);
    return count;
}

void interrupt(const Interrupted& interrupted, std::string password) {
    const int nth =
        interrupted.nth == Interrupted::kLast ? countCalls(interrupted, password) : interrupted.nth;
    const int code = fault::inChild([&] {
        const Session session;
        const Step open{Act::kOpen, {}, {}, password};
        (void)Action(open, password).run();  // there may be nothing to open yet
        Action action(interrupted.step, password);
        const fault::DyingCall death(nth, {interrupted.call});
        return static_cast<int>(action.run());
    });
    if (code != fault::kDeath) {
        throw std::runtime_error("no death: " + describe(interrupted.step));
    }
}

}  // namespace

std::string describe(const Step& step) {
    const char* const acts[] = {"write", "remove", "read", "scan", "prepare", "open", "recrypt"};
    const std::string act = acts[static_cast<int>(step.act)];
    return step.act == Act::kOpen || step.act == Act::kRecrypt ? act + " \"" + step.password + '"'
                                                               : act + ' ' + step.id;
}

std::unique_ptr<fault::NoLinks> linksOf(const Workload& workload) {
    return workload.links ? nullptr : std::make_unique<fault::NoLinks>();
}

const std::vector<Workload>& workloads() {
    static const std::vector<Workload> kAll = [] {
        std::vector<Workload> all;
        addRecordWorkloads(all);
        addWorkloadsOnLeftovers(all);
        addFolderWorkloads(all);
        addPasswordWorkloads(all);
        return all;
    }();
    return kAll;
}

std::vector<Workload> sequences(int length) {
    const Start left =
        with({{kA, sealed("zero")}, {kB, sealed("zero")}},
             {beforeDeleting(removeIt(kB)), betweenRenames(write(kA, bare("lost")))});
    std::vector<Workload> all{{"sequence", with({{kA, sealed("zero")}}), {}},
                              {"sequence_on_leftovers", left, {}}};
    for (int nth = 1; nth <= length; ++nth) {
        std::vector<Workload> longer;
        for (const Workload& workload : all) {
            int number = 0;
            for (const Step& step : anySteps(workload, "number " + std::to_string(nth))) {
                Workload& added = longer.emplace_back(workload);
                added.name += "_" + std::to_string(number++);
                added.steps.push_back(step);
            }
        }
        all = std::move(longer);
    }
    return all;
}

Workload randomWorkload(std::mt19937& random) {
    Workload workload{"random", with({{kA, sealed("zero")}}), {}};
    const std::size_t length = random() % 5 + 2;
    for (std::size_t nth = 1; nth <= length; ++nth) {
        std::vector<Step> steps = changes("number " + std::to_string(nth));
        steps.push_back(readIt(kA));
        steps.push_back(kScan);
        if (random() % 8 == 0) {
            steps = {recrypt("password " + std::to_string(nth))};
        }
        workload.steps.push_back(steps[random() % steps.size()]);
    }
    const std::vector<Step> before = changes("number 0");
    if (const Step& step = before[random() % before.size()]; step.id != kB && random() % 2 == 0) {
        workload.start.interrupted = {{step, Call::kRename, 1}};
    }
    return workload;
}

void make(const Start& start) {
    if (start.prepared) {
        Session session;
        require(CMN_FILESTORE_S.prepareDBFolders(), "prepareDBFolders");
        require(CMN_FILESTORE_S.open(""), "open");  // with a key that no password record tells
        writeAll(start.foreign);
        require(CMN_FILESTORE_S.close(), "close");
        if (!start.password.empty()) {
            writeAll(
                {{"key", {{{kTypeBinary, 1, passwordDigest(start.password), false}}, {}, false}}});
        }
        require(CMN_FILESTORE_S.open(start.password.c_str()), "open");
        writeAll(start.records);
    }
    for (const Interrupted& interrupted : start.interrupted) {
        interrupt(interrupted, start.password);
    }
}

Action::Action(const Step& step, std::string& password) : step_(step), password_(password) {
    switch (step.act) {
        case Act::kWrite:
            record_.emplace(recordOf(step.id));
            fill(*record_, step.contents);
            break;
        case Act::kRead:
        case Act::kRemove:
            record_.emplace(recordOf(step.id));
            break;
        case Act::kScan:
            list_.emplace();
            break;
        default:
            break;
    }
}

Status Action::run() {
    switch (step_.act) {
        case Act::kWrite:
            return record_->write();
        case Act::kRemove:
            return record_->remove();
        case Act::kRead:
            read_ = record_->read();
            return read_ != kOk ? read_ : record_->decrypt();
        case Act::kScan:
            return list_->readFromFolder(("./db/" + step_.id).c_str());
        case Act::kPrepare:
            return CMN_FILESTORE_S.prepareDBFolders();
        case Act::kOpen:
            (void)CMN_FILESTORE_S.close();  // kClosed is as good
            return CMN_FILESTORE_S.open(step_.password.c_str());
        case Act::kRecrypt: {
            const Status status =
                CMN_FILESTORE_S.recrypt(password_.c_str(), step_.password.c_str());
            if (status == kOk) {
                password_ = step_.password;
            }
            return status;
        }
    }
    return kInvalid;
}

std::vector<std::string> Action::listed() {
    std::vector<std::string> ids;
    for (aFileStore record = list_->getFirst(); record.target() != nullptr;
         record = list_->getNext()) {
        ids.push_back(step_.id + '/' + record.getName());
    }
    return ids;
}

Found Action::found() {
    Found found;
    found.read = read_;
    found.exists = read_ == kOk || record_->isExist() != 0;
    if (read_ == kOk) {
        found.decrypted = record_->decrypt();  // does nothing where all is plain
        found.contents = contentsOf(*record_);
    }
    return found;
}

}  // namespace crash
