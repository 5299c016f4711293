// FreeType, calloc and free as a test program's linker puts them between the product and the real
// ones: every call is noted and passed on unless the test said that it fails, and what was handed
// out is followed until it is given back.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

struct FreeTypeScript {
    // ---- faults ----
    std::map<std::string, int> fail_at; // the n-th call of a function from now on fails, 1 the next
    int fail_any_at = 0;                // the n-th call from now on of all that can fail; 0: none
    bool render_gray = false;           // bitmaps come with 8 bits per pixel
    FT_Error done_library_result = 0;

    // ---- what happened ----
    std::vector<std::string> calls; // as "name(arguments)", handles left out
    std::vector<FT_Glyph> released; // in order, nulls left out

    // ---- what is out ----
    std::set<FT_Library> libraries;
    std::set<FT_Face> faces;
    std::set<FT_Glyph> glyphs;
    std::set<void *> arrays; // of calloc
    int wrong_releases = 0;  // of what was not out, null glyphs excepted

    bool nothing_is_out() const
    {
        return libraries.empty() && faces.empty() && glyphs.empty() && arrays.empty() &&
               wrong_releases == 0;
    }
    long count(const std::string &call) const; // of this text
};

// The one script. A test begins with resetting its faults and notes; what is out stays followed.
FreeTypeScript &freetype();
void reset_freetype_script();
