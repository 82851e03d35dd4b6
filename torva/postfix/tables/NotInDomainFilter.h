// Tests whether a key or an element of a value lies outside a mail domain. The filters
// that use it are ListingFilter.h.
#pragma once

#include <string>
#include <utility>

namespace torva::mail::postfix::database {

class NotInDomainFilter {
public:
    /// \param domain      compared byte for byte, so case matters
    /// \param subdomains  true: anything that ends in "." and the domain is inside as well
    NotInDomainFilter(std::string domain, bool subdomains)
        : domain_(std::move(domain)), subdomains_(subdomains) {}

    /// Whether the text is neither the domain nor an address in it (nor, when they count,
    /// a subdomain of it or an address in one).
    bool operator()(const std::string& text) const {
        if (text.size() < domain_.size() ||
            text.compare(text.size() - domain_.size(), domain_.size(), domain_) != 0) {
            return true;
        }
        if (text.size() == domain_.size()) {
            return false;
        }
        const char before = text[text.size() - domain_.size() - 1];
        return before != '@' && !(subdomains_ && before == '.');
    }

private:
    std::string domain_;
    bool subdomains_;
};

} // namespace torva::mail::postfix::database
