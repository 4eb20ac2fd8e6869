#include "name_fold.h"

#include <locale.h>
#include <wctype.h>

#include "utf8.h"

namespace DriveEmulator {

namespace {

// towlower needs a UTF-8 locale; we make our own instead of changing the
// process's, which other code (and the message framing) relies on.
locale_t utf8Locale() {
    static locale_t locale = [] {
        locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
        if (!l) l = newlocale(LC_CTYPE_MASK, "en_US.UTF-8", static_cast<locale_t>(0));
        return l;
    }();
    return locale;
}

}  // namespace

std::string foldName(std::string const& name) {
    locale_t locale = utf8Locale();
    std::string out;
    out.reserve(name.size());
    for (size_t i = 0; i < name.size();) {
        char32_t cp = 0;
        size_t len = Utf8::decodeAt(name, i, cp);
        if (len == 0) {
            out += name[i++];
            continue;
        }
        if (cp < 0x80) {
            out += static_cast<char>(cp >= 'A' && cp <= 'Z' ? cp + ('a' - 'A') : cp);
        } else if (locale) {
            Utf8::append(out, static_cast<char32_t>(towlower_l(static_cast<wint_t>(cp), locale)));
        } else {
            out.append(name, i, len);
        }
        i += len;
    }
    return out;
}

}  // namespace DriveEmulator
