// How near does the store come to what the disk allows, and how do others do?
//
//     contest [--quick] FOLDER [small|large|recrypt|threads|framework]
//
// Every contender does the same work in a folder of its own in FOLDER, which must be
// empty, or not exist. The rounds of all are interleaved and begin with another one each time, so
// that whatever else the machine does meets all alike. Prints one line per round:
// question, contender, round, and the median of what one operation took in
// microseconds, with tabs between; scripts/bench_report.py makes ratios of them.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>

#include <malloc.h>

#include "bench/contest/files.h"
#include "bench/contest/others.h"
#include "bench/contest/rounds.h"
#include "client/file_store_exp.h"
#include "host/store_host.h"

namespace {

namespace fs = std::filesystem;

struct Sizes {
    int rounds;
    std::size_t batch;      // durable operations in a round
    std::size_t reads;      // reads in a round
    std::size_t few;        // records of the small database before anything is measured
    std::size_t many;       // records of the large one
    std::size_t toRecrypt;  // records whose password changes
    int recryptions;        // each there and back again
    double secondsOfReading;
};

constexpr Sizes kFull{40, 10, 200, 100, 100000, 10000, 4, 2.0};
constexpr Sizes kQuick{12, 6, 100, 100, 10000, 1000, 1, 0.5};

class Contest {
public:
    Contest(fs::path root, const Sizes& sizes) : root_(std::move(root)), sizes_(sizes) {
        entrants_.push_back({"floor", makeFloor()});
        entrants_.push_back({"store", makeStore()});
        entrants_.push_back({"calls", makeCalls()});
        addOthers(entrants_);
    }

    // All parts, or the one of this name.
    void run(const std::string& part) {
        const struct {
            const char* name;
            void (Contest::*ask)();
        } parts[] = {{"small", &Contest::small},
                     {"large", &Contest::large},
                     {"recrypt", &Contest::recryption},
                     {"threads", &Contest::readersSideBySide},
                     {"framework", &Contest::framework}};
        bool found = false;
        for (const auto& each : parts) {
            if (part.empty() || part == each.name) {
                (this->*each.ask)();
                found = true;
            }
        }
        require(found, "there is no such part");
    }

private:
    using Work = std::function<void(Contender&, std::size_t)>;
    static constexpr std::size_t kOurs = 2;  // the floor and the store

    void enter(const Entrant& entrant, const std::string& database) {
        const fs::path folder = root_ / (entrant.name + "-" + database);
        if (!fs::exists(folder)) {
            fs::create_directory(folder);
            fs::current_path(folder);
            entrant.contender->create();
        }
        fs::current_path(folder);
        entrant.contender->enter();
    }

    // What `work` takes for each of the next `batch` numbers in every round.
    void ask(const std::string& question, const std::string& database, int rounds,
             std::size_t batch, const Work& work) {
        const std::size_t count = entrants_.size();
        for (int round = 0; round < rounds; ++round) {
            for (std::size_t turn = 0; turn < count; ++turn) {
                const Entrant& entrant =
                    entrants_[(turn + static_cast<std::size_t>(round)) % count];
                enter(entrant, database);
                std::vector<double> taken;
                for (std::size_t i = 0; i < batch; ++i) {
                    const auto start = Clock::now();
                    work(*entrant.contender, static_cast<std::size_t>(round) * batch + i);
                    taken.push_back(microseconds(start));
                }
                report(question, entrant.name, round, medianOf(taken));
            }
        }
    }

    void fillAll(const std::string& database, std::size_t end) {
        fill(entrants_.size(), database, end);
    }

    void fill(std::size_t count, const std::string& database, std::size_t end) {
        for (std::size_t i = 0; i < count; ++i) {
            enter(entrants_[i], database);
            entrants_[i].contender->open();
            entrants_[i].contender->fill(0, end);
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));  // the disk settles
    }

    void askToRead(const std::string& question, const std::string& database, std::size_t records) {
        std::mt19937 random(1);
        std::vector<std::size_t> order(static_cast<std::size_t>(sizes_.rounds) * sizes_.reads);
        for (std::size_t& index : order) {
            index = random() % records;
        }
        Record record;
        // The first round of all brings the files into the page cache.
        ask("warm-up of " + question, database, sizes_.rounds, sizes_.reads,
            [&](Contender& store, std::size_t i) { store.read(nameOfRecord(order[i]), record); });
        ask(question, database, sizes_.rounds, sizes_.reads, [&](Contender& store, std::size_t i) {
            store.read(nameOfRecord(order[i]), record);
            require(record.body.size() == kBodySize && record.secret.size() == kSecretSize,
                    "a record is read in part");
        });
    }

    void askToList(const std::string& question, const std::string& database, int rounds,
                   std::size_t records) {
        ask(question, database, rounds, 1, [&](Contender& store, std::size_t) {
            require(store.list() == records, "not all records are listed");
        });
    }

    void small() {
        fillAll("small", sizes_.few);
        ask("put", "small", sizes_.rounds, sizes_.batch,
            [&](Contender& store, std::size_t i) { store.put(makeRecord(sizes_.few + i, 1)); });
        ask("overwrite", "small", sizes_.rounds, sizes_.batch,
            [&](Contender& store, std::size_t i) { store.put(makeRecord(sizes_.few + i, 2)); });
        askToRead("read", "small", sizes_.few);
        ask("open", "small", sizes_.rounds, 3, [](Contender& store, std::size_t) { store.open(); });
        fillAll("list", 1000);
        askToList("list of 1,000", "list", sizes_.rounds, 1000);
        ask("remove", "small", sizes_.rounds, sizes_.batch,
            [&](Contender& store, std::size_t i) { store.remove(nameOfRecord(sizes_.few + i)); });
        askToList("list after removal", "small", 1, sizes_.few);
    }

    void large() {
        fillAll("large", sizes_.many);
        ask("put among many", "large", sizes_.rounds, sizes_.batch,
            [&](Contender& store, std::size_t i) { store.put(makeRecord(sizes_.many + i, 1)); });
        askToRead("read among many", "large", sizes_.many);
        ask("open with many", "large", sizes_.rounds, 3,
            [](Contender& store, std::size_t) { store.open(); });
        askToList("list of many", "large", 5,
                  sizes_.many + static_cast<std::size_t>(sizes_.rounds) * sizes_.batch);
        memoryOfList();
    }

    // There and back again, on databases of their own: what was deleted lately slows its
    // neighbours down. What one leaves to be written at any time, another's sync of the
    // whole disk must not pay for.
    void recryption() {
        for (int round = 0; round < 2 * sizes_.recryptions; ++round) {
            const bool there = round % 2 == 0;
            const std::string database = "recrypt-" + std::to_string(round / 2);
            if (there) {
                fill(kOurs, database, sizes_.toRecrypt);
            }
            for (std::size_t turn = 0; turn < kOurs; ++turn) {
                const Entrant& entrant =
                    entrants_[(turn + static_cast<std::size_t>(round)) % kOurs];
                enter(entrant, database);
                syncDisk();
                const auto start = Clock::now();
                entrant.contender->changePassword(there ? kPassword : kOtherPassword,
                                                  there ? kOtherPassword : kPassword);
                report("recrypt", entrant.name, round, microseconds(start));
            }
        }
    }

    // Reads in a second that `threads` threads do together.
    double readsBy(Contender& store, unsigned int threads) {
        std::atomic<bool> stop{false};
        std::atomic<std::size_t> reads{0};
        std::vector<std::thread> readers;
        const auto start = Clock::now();
        for (unsigned int reader = 0; reader < threads; ++reader) {
            readers.emplace_back([&, reader] {
                Record record;
                std::size_t done = 0;
                for (std::size_t i = reader; !stop; i = (i + threads) % sizes_.few, ++done) {
                    store.read(nameOfRecord(i), record);
                }
                reads += done;
            });
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(sizes_.secondsOfReading));
        stop = true;
        for (std::thread& reader : readers) {
            reader.join();
        }
        return static_cast<double>(reads) * 1e6 / microseconds(start);
    }

    // The floor shows what the machine allows two threads.
    void readersSideBySide() {
        fill(kOurs, "threads", sizes_.few);
        for (int round = 0; round < 5; ++round) {
            for (std::size_t i = 0; i < kOurs; ++i) {
                enter(entrants_[i], "threads");
                const double alone = readsBy(*entrants_[i].contender, 1);
                report("two readers to one", entrants_[i].name, round,
                       readsBy(*entrants_[i].contender, 2) / alone);
            }
        }
    }

    template <class Operation>
    static double nanosecondsOf(Operation operation) {
        constexpr int kTimes = 20000;
        const auto start = Clock::now();
        for (int i = 0; i < kTimes; ++i) {
            operation();
        }
        return microseconds(start) * 1000 / kTimes;
    }

    // What the framework costs by itself, beside the same without it.
    void framework() {
        enter(entrants_[1], "framework");
        entrants_[1].contender->open();
        const aFileStore record;
        TFileStore& direct = *record.target();
        const auto plain = std::make_shared<Record>();
        for (int round = 0; round < 15; ++round) {
            const auto ask = [&](const char* question, auto without, auto with) {
                report(question, "without", round, nanosecondsOf(without));
                report(question, "store", round, nanosecondsOf(with));
            };
            unsigned int sum = 0;
            ask(
                "call through a proxy", [&] { keep(sum += direct.getBodySize()); },
                [&] { keep(sum += record.getBodySize()); });
            ask(
                "copy of a handle", [&] { keep(std::shared_ptr<Record>(plain).get()); },
                [&] { keep(aFileStore(record).target()); });
            ask(
                "new record", [] { keep(std::make_unique<Record>().get()); },
                [] { keep(aFileStore().target()); });
        }
    }

    // The compiler must make the value.
    template <class T>
    static void keep(const T& value) {
        asm volatile("" : : "g"(value) : "memory");
    }

    void memoryOfList() {
        enter(entrants_[1], "large");
        aFileStoreList records;
        const auto inUse = [] {
            const struct mallinfo2 info = mallinfo2();
            return static_cast<double>(info.uordblks + info.hblkhd);
        };
        const double before = inUse();
        require(records.readFromFolder("./db/keys") == kOk, "no list");
        report("bytes of a list per record", "store", 0,
               (inUse() - before) / static_cast<double>(sizes_.many));
    }

    const fs::path root_;
    const Sizes sizes_;
    std::vector<Entrant> entrants_;  // the floor, the store, and others
};

int compete(const char* root, const Sizes& sizes, const char* part) {
    StoreHost host;
    if (const Result started = host.start(); !started.ok()) {
        std::fprintf(stderr, "%s\n", started.message.c_str());
        return 1;
    }
    try {
        fs::create_directories(root);
        require(fs::is_empty(root), "the folder is not empty");
        Contest(fs::absolute(root), sizes).run(part);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
    return host.stop().ok() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
    const int first = quick ? 2 : 1;
    if (argc != first + 1 && argc != first + 2) {
        std::fprintf(stderr, "usage: %s [--quick] FOLDER [small|large|recrypt|threads|framework]\n",
                     argv[0]);
        return 2;
    }
    return compete(argv[first], quick ? kQuick : kFull, argc > first + 1 ? argv[first + 1] : "");
}
