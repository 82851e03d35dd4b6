// The grammar of master.cf, and the writer and the reader that use it: every text is read or
// refused as by a second reader, which goes line by line; what is not edited is kept byte
// for byte; a formatted record is read as the same record.
#include "Fuzz.h"
#include "LineOracle.h"
#include "torva/postfix/mastercf/MasterCfParser.h"
#include "torva/postfix/mastercf/MasterCfReader.h"
#include "torva/postfix/mastercf/MasterCfWriter.h"

#include <fstream>
#include <set>
#include <sstream>

using namespace torva::fuzz;
using namespace torva::mail::postfix;
using testing::OracleLine;

namespace {

using Texts = std::vector<std::string>;

bool read(const std::string& text, MasterCfLines& lines) {
    return parseMasterCf(text.data(), text.data() + text.size(), lines);
}

Texts textsOf(const MasterCfLines& lines) {
    return Texts(lines.lines().begin(), lines.lines().end());
}

std::string joined(const Texts& texts) {
    std::string text;
    for (const std::string& each : texts) {
        text += each + "\n";
    }
    return text;
}

/// The columns as the file has them; 4294967295, the greatest number, is kept as -1.
std::string describe(const MasterCfModule& record) {
    const char* const types[] = {"inet", "unix", "fifo"};
    std::string text = record.name + "/" + types[static_cast<int>(record.type)];
    for (const boost::logic::tribool flag : {record.private_, record.unpriv, record.chroot}) {
        text += boost::logic::indeterminate(flag) ? " -" : flag ? " y" : " n";
    }
    text += " " + std::to_string(record.wakeup) + (record.wakeupConditional ? "?" : "") + " " +
            std::to_string(record.maxproc) + " ";
    for (const std::string& word : record.words) {
        text += "[" + word + "]";
    }
    return text;
}

void checkFormat(MasterCfModule record) {
    if (record.wakeup < -1 || record.maxproc < -1) {
        return; // beyond 31 bits: kept as a negative number, which this syntax does not have
    }
    MasterCfLines again;
    require(read(formatModule(record), again), "a formatted record is one line of this syntax");
    record.wakeupConditional = record.wakeupConditional && record.wakeup != -1;
    require(describe(again.record(MasterCfLines::keyOf(record))) == describe(record),
            "a formatted record is read as the same record");
}

void checkEdits(MasterCfLines& lines) {
    const Texts before = textsOf(lines);
    MasterCfModule record;
    record.name = "_not_there_"; // unless the input has this name
    if (lines.contains(MasterCfLines::keyOf(record))) {
        return;
    }
    lines.set(record, "text");
    Texts wanted = before;
    wanted.push_back("text");
    require(textsOf(lines) == wanted, "a new service comes last and touches no other line");
    require(lines.get(MasterCfLines::keyOf(record)).text == "text", "what was put in is there");
    require(lines.remove(MasterCfLines::keyOf(record)), "what is there can be removed");
    require(!lines.remove(MasterCfLines::keyOf(record)), "and is gone then");
    require(textsOf(lines) == before, "what was put in is removed without a trace");
}

void checkFile(const MasterCfLines& lines) {
    static const std::string path =
        std::string(std::getenv("TMPDIR") != nullptr ? std::getenv("TMPDIR") : "/tmp") +
        "/fuzz.master.cf";
    MasterCfWriter::write(lines, path);
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    require(content.str() == joined(textsOf(lines)), "the file holds the lines and nothing else");
    MasterCfLines again;
    MasterCfReader::read(path, again);
    Texts wanted = textsOf(lines);
    wanted.emplace_back(); // after the last line feed
    require(textsOf(again) == wanted, "the file is read as the same lines");
}

/// Services of one key joined: the later text in the earlier place.
Texts checkServices(const std::vector<OracleLine>& oracle, const MasterCfLines& lines) {
    Texts texts;
    std::map<MasterCfLines::Key, std::pair<std::size_t, const OracleLine*>> places;
    for (const OracleLine& line : oracle) {
        if (line.isService) {
            const MasterCfLines::Key key(line.service.name,
                                         static_cast<ModuleType>(line.service.type));
            const auto [place, isNew] = places.try_emplace(key, texts.size(), &line);
            place->second.second = &line;
            if (!isNew) {
                texts[place->second.first] = line.text;
                continue;
            }
        }
        texts.push_back(line.text);
    }
    for (const auto& [key, place] : places) {
        require(lines.contains(key), "every service is found");
        require(lines.text(key) == place.second->text, "with its text");
        require(describe(lines.record(key)) == place.second->service.description,
                "with its columns and words");
        checkFormat(lines.record(key));
    }
    return texts;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = textOf(data, size);
    const testing::OracleVerdict verdict = testing::judge(text);
    MasterCfLines lines;
    require(read(text, lines) == verdict.accepted, "both accept, or both refuse");
    if (!verdict.accepted) {
        return 0;
    }
    Texts raw;
    for (const OracleLine& line : verdict.lines) {
        raw.push_back(line.text);
    }
    require(joined(raw) == text + "\n", "every byte belongs to a line");
    require(textsOf(lines) == checkServices(verdict.lines, lines), "untouched lines come back");
    checkEdits(lines);
    // Files are slow: one input in eight goes through one.
    if (size % 8 == 0) {
        checkFile(lines);
    }
    return 0;
}
