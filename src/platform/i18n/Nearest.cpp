// Which of a list of names a person most likely meant: compared letter by
// letter (code points, case folded), so that an umlaut typed without its
// capital is one name and a missing accent one edit.

#include <algorithm>
#include <boost/locale/utf.hpp>
#include <numeric>

#include "tsappinstall/platform/i18n/MessageCatalog.hpp"

namespace fl::i18n {
namespace {

std::u32string letters(const std::string& text) {
    namespace utf = boost::locale::utf;
    const std::string lower = folded(text);
    std::u32string out;
    for (auto at = lower.begin(); at != lower.end();) {
        const auto start = at;
        const utf::code_point c = utf::utf_traits<char>::decode(at, lower.end());
        if (c == utf::illegal || c == utf::incomplete) {
            at = start + 1;
            out += static_cast<char32_t>(0xDC00 + static_cast<unsigned char>(*start));
        } else {
            out += static_cast<char32_t>(c);
        }
    }
    return out;
}

// Edits (insert, delete, replace, swap two neighbours) from `a` to `b`.
std::size_t editDistance(const std::u32string& a, const std::u32string& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    std::iota(d[0].begin(), d[0].end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i)
        for (std::size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[a.size()][b.size()];
}

}  // namespace

std::vector<std::string> nearest(const std::string& typed,
                                 const std::vector<std::string>& candidates) {
    // Names longer than this are not what anyone typed by hand; comparing
    // them would cost the product of the lengths.
    constexpr std::size_t kLongest = 256;
    const std::u32string wanted = letters(typed);
    if (wanted.size() > kLongest) return {};
    std::size_t best = std::max<std::size_t>(2, wanted.size() / 3);
    std::vector<std::string> found;
    for (const std::string& candidate : candidates) {
        const std::u32string name = letters(candidate);
        if (name.size() > kLongest) continue;
        const std::size_t distance = editDistance(wanted, name);
        if (distance > best) continue;
        if (distance < best) found.clear(), best = distance;
        if (std::find(found.begin(), found.end(), candidate) == found.end())
            found.push_back(candidate);
    }
    return found;
}

}  // namespace fl::i18n
