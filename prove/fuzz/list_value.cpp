// The functions that edit list values. Input: the list, a NUL, the element. An edit changes
// the elements as documented and keeps the others in their order; repeating it changes
// nothing.
#include "Fuzz.h"
#include "torva/postfix/params/ListValue.h"

#include <iterator>

using namespace torva::fuzz;
using namespace torva::mail::postfix;

namespace {

using Elements = std::vector<std::string>;

bool contains(const Elements& elements, const std::string& element) {
    return std::count(elements.begin(), elements.end(), element) != 0;
}

void checkSplit(const Elements& elements, const char* separators,
                Elements (*split)(const std::string&)) {
    for (const std::string& element : elements) {
        require(!element.empty(), "no element is empty");
        require(element.find_first_of(separators) == std::string::npos,
                "no element holds a separator");
    }
    require(split(joinList(elements)) == elements, "what was joined is split into the same");
}

/// Checks one of the two ways to append, with the way to split that belongs to it.
void checkAppend(const std::string& list, const std::string& element,
                 std::optional<std::string> (*append)(const std::string&, const std::string&),
                 Elements (*split)(const std::string&)) {
    Elements wanted = split(list);
    const bool there = contains(wanted, element);
    const std::optional<std::string> changed = append(list, element);
    require(changed.has_value() == !there, "only what is missing is appended");
    if (split(element) != Elements{element} || there) {
        return; // no element of such a list, or nothing to do
    }
    require(wanted.empty() || changed->rfind(list, 0) == 0, "the old text stays in front");
    wanted.push_back(element);
    require(split(*changed) == wanted, "the element comes after all others");
    require(!append(*changed, element), "a second append finds nothing to do");
}

void checkRemove(const std::string& list, const std::string& element) {
    Elements wanted = splitList(list);
    const bool there = contains(wanted, element);
    require(listHolds(list, element) == there, "a list holds what is among its elements");
    const std::optional<std::string> changed = withoutElement(list, element);
    require(changed.has_value() == there, "only what is there is removed");
    if (!there) {
        return;
    }
    wanted.erase(std::remove(wanted.begin(), wanted.end(), element), wanted.end());
    require(splitList(*changed) == wanted, "the others stay, in their order");
    require(*changed == joinList(wanted), "the rest is joined again");
    require(!withoutElement(*changed, element), "a second removal finds nothing to do");
    require(splitList(*withElement(*changed, element)).back() == element,
            "what was removed can be appended again");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = textOf(data, size);
    const std::string::size_type nul = std::min(text.find('\0'), text.size());
    const std::string list = text.substr(0, nul);
    Elements elements{text.substr(std::min(nul + 1, text.size()))};
    checkSplit(splitList(list), " \t,", splitList);
    checkSplit(splitAtCommas(list), ",", splitAtCommas);
    // Elements of the list itself are there, which a made-up one seldom is.
    for (const Elements& some : {splitList(list), splitAtCommas(list)}) {
        std::copy_n(some.begin(), std::min<std::size_t>(3, some.size()),
                    std::back_inserter(elements));
    }
    for (const std::string& element : elements) {
        checkAppend(list, element, withElement, splitList);
        checkAppend(list, element, withRestriction, splitAtCommas);
        checkRemove(list, element);
    }
    return 0;
}
