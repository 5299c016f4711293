# Writes a C++ source with the page's files as text:
# cmake -DPAGE=folder -DFILES=a,b -DOUTPUT=file -P page.cmake
string(REPLACE "," ";" FILES "${FILES}")
set(entries "")
foreach(file IN LISTS FILES)
    file(READ "${PAGE}/${file}" content)
    if(file MATCHES "\\.html$")
        set(type "text/html; charset=utf-8")
    elseif(file MATCHES "\\.css$")
        set(type "text/css; charset=utf-8")
    elseif(file MATCHES "\\.js$")
        set(type "text/javascript; charset=utf-8")
    else()
        set(type "image/svg+xml")
    endif()
    set(path "/${file}")
    if(file STREQUAL "index.html")
        set(path "/")
    endif()
    file(SHA1 "${PAGE}/${file}" hash)
    string(APPEND entries
        "    {\"${path}\", \"${type}\", R\"~~~(${content})~~~\", \"\\\"${hash}\\\"\"},\n")
endforeach()
file(WRITE "${OUTPUT}" "// Made from simcam/web/page/ at build time.
#include \"web/page.h\"

namespace simcam
{

static constexpr PageFile FILES[] = {
${entries}};

const PageFile *page_find(std::string_view path)
{
    for (const PageFile &file : FILES) {
        if (file.path == path)
            return &file;
    }
    return nullptr;
}

} // namespace simcam
")
