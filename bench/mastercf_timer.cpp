// Times master.cf in process: reads a file of many services, changes one, adds one,
// removes one, writes it. Prints "NAME VALUE" lines: the seconds of all that, and
// the peak of the resident memory in KiB.
//
//     mastercf_timer COUNT FILE          writes FILE and works on it
//     mastercf_timer write COUNT FILE    only writes it, for other programs to read
#include "bench/Measure.h"
#include "torva/postfix/mastercf/MasterCf.h"

#include <exception>

using namespace torva;
using namespace torva::mail::postfix;

namespace {

void writeServices(std::size_t count, const std::string& path) {
    std::ofstream file(path, std::ios::binary);
    file << "# services\n";
    for (std::size_t number = 0; number < count; ++number) {
        file << "service" << number << "  unix  -       n       n       -       10      pipe\n"
             << "  flags=R user=nobody argv=/bin/program" << number << " ${sender} ${recipient}\n";
    }
    if (!file.flush()) {
        bench::die("cannot write " + path);
    }
}

void readEditWrite(std::size_t count, const std::string& path) {
    MasterCf file(path);
    file.load(false);
    MasterCfModule record =
        file.getModule("service" + std::to_string(count / 2), ModuleType::unix, true).record;
    record.maxproc = 20;
    file.putModule(record, true);
    record.name = "added";
    file.putModule(record, true);
    file.removeModule("service" + std::to_string(count / 3), ModuleType::unix);
    if (!file.save(false)) {
        bench::die("nothing was written");
    }
}

// One round on a heap that is as fresh as in a program that does this once; the small
// round before it only loads the code.
void measure(std::size_t count, const std::string& path) {
    for (const std::size_t services : {std::size_t{10}, count}) {
        writeServices(services, path);
        const double seconds = bench::secondsOf([&] { readEditWrite(services, path); });
        if (services == count) {
            bench::report("seconds", seconds);
            bench::report("peak_kb", static_cast<double>(bench::peakKb()));
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    try {
        if (words.size() == 3 && words[0] == "write") {
            writeServices(std::stoul(words[1]), words[2]);
        } else if (words.size() == 2) {
            measure(std::stoul(words[0]), words[1]);
        } else {
            bench::die("usage: mastercf_timer [write] COUNT FILE");
        }
    } catch (const std::exception& error) {
        bench::die(std::string("mastercf_timer: ") + error.what());
    }
}
