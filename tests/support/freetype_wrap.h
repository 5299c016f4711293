// FreeType's functions wrapped by the linker (--wrap): a test defines __wrap_NAME and calls
// __real_NAME.
#pragma once

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

extern "C" {

FT_Error __real_FT_Init_FreeType(FT_Library *library);
FT_Error __real_FT_New_Face(FT_Library library, const char *path, FT_Long index, FT_Face *face);
FT_Error __real_FT_Request_Size(FT_Face face, FT_Size_Request request);
FT_UInt __real_FT_Get_Char_Index(FT_Face face, FT_ULong code);
FT_Error __real_FT_Load_Glyph(FT_Face face, FT_UInt index, FT_Int32 flags);
FT_Error __real_FT_Get_Glyph(FT_GlyphSlot slot, FT_Glyph *glyph);
FT_Error __real_FT_Glyph_To_Bitmap(FT_Glyph *glyph, FT_Render_Mode mode, const FT_Vector *origin,
                                   FT_Bool destroy);
void __real_FT_Done_Glyph(FT_Glyph glyph);
FT_Error __real_FT_Done_Face(FT_Face face);
FT_Error __real_FT_Done_FreeType(FT_Library library);

FT_Error __wrap_FT_Init_FreeType(FT_Library *library);
FT_Error __wrap_FT_New_Face(FT_Library library, const char *path, FT_Long index, FT_Face *face);
FT_Error __wrap_FT_Request_Size(FT_Face face, FT_Size_Request request);
FT_UInt __wrap_FT_Get_Char_Index(FT_Face face, FT_ULong code);
FT_Error __wrap_FT_Load_Glyph(FT_Face face, FT_UInt index, FT_Int32 flags);
FT_Error __wrap_FT_Get_Glyph(FT_GlyphSlot slot, FT_Glyph *glyph);
FT_Error __wrap_FT_Glyph_To_Bitmap(FT_Glyph *glyph, FT_Render_Mode mode, const FT_Vector *origin,
                                   FT_Bool destroy);
void __wrap_FT_Done_Glyph(FT_Glyph glyph);
FT_Error __wrap_FT_Done_Face(FT_Face face);
FT_Error __wrap_FT_Done_FreeType(FT_Library library);

} // extern "C"
