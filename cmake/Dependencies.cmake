# Everything comes from Debian's packages (scripts/setup.sh installs them).
find_package(Qt5 REQUIRED COMPONENTS Core Gui Widgets)
find_package(glog REQUIRED)
find_package(Boost REQUIRED)
find_package(ICU REQUIRED COMPONENTS uc)
find_package(PkgConfig REQUIRED)
pkg_check_modules(FREETYPE2 REQUIRED IMPORTED_TARGET freetype2)
pkg_check_modules(HARFBUZZ REQUIRED IMPORTED_TARGET harfbuzz)
pkg_check_modules(FONTCONFIG REQUIRED IMPORTED_TARGET fontconfig)

# MuPDF ships static archives only, with its private libraries listed apart.
find_path(MUPDF_INCLUDE_DIR mupdf/fitz.h REQUIRED)
find_library(MUPDF_LIBRARY NAMES libmupdf.a REQUIRED)
find_library(MUPDF_THIRD_LIBRARY NAMES libmupdf-third.a REQUIRED)
add_library(MuPDF::MuPDF INTERFACE IMPORTED)
set_target_properties(MuPDF::MuPDF PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "${MUPDF_INCLUDE_DIR}")
target_link_libraries(MuPDF::MuPDF INTERFACE
  ${MUPDF_LIBRARY} ${MUPDF_THIRD_LIBRARY}
  mujs gumbo openjp2 jbig2dec jpeg z m
  PkgConfig::FREETYPE2 PkgConfig::HARFBUZZ)
