#include "torva/postfix/tables/Blacklist.h"

#include "torva/postfix/tables/Postmap.h"

namespace torva::mail::postfix {

namespace {

const char blacklistTable[] = "hash:/var/spool/postfix/torva/blacklists";

} // namespace

void addToBlacklist(const Keys& senders) {
    Records records;
    for (const std::string& sender : senders) {
        records.emplace_back(sender, "REJECT");
    }
    putRecords(blacklistTable, records);
}

void removeFromBlacklist(const Keys& senders) {
    deleteKeys(blacklistTable, senders);
}

Keys blacklist() {
    Keys senders;
    for (const Record& record : dumpTable(blacklistTable)) {
        senders.push_back(record.first);
    }
    return senders;
}

} // namespace torva::mail::postfix
