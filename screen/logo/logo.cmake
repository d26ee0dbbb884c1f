# The "AMT MODE" picture is drawn at build time: make_logo renders the
# letters with FreeType from a DejaVu face and writes the gzip stream as a
# C++ source, which goes into ovta_core as ${OVTA_LOGO_SOURCE}.
# Needs the Debian packages libfreetype-dev and fonts-dejavu-core.
set(OVTA_LOGO_FONT "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"
    CACHE FILEPATH "Sans-serif face of the AMT MODE picture")
if(NOT EXISTS "${OVTA_LOGO_FONT}")
  message(FATAL_ERROR "The AMT MODE picture needs the font ${OVTA_LOGO_FONT} (Debian: fonts-dejavu-core)")
endif()

if(CMAKE_CROSSCOMPILING)
  # The generator runs on the build machine: take one from a host build.
  set(OVTA_MAKE_LOGO "" CACHE FILEPATH "make_logo built for the build machine")
  if(NOT OVTA_MAKE_LOGO)
    message(FATAL_ERROR "Cross builds need OVTA_MAKE_LOGO, the make_logo of a host build")
  endif()
  set(ovta_make_logo_command "${OVTA_MAKE_LOGO}")
else()
  find_package(Freetype REQUIRED)
  add_executable(make_logo ${CMAKE_CURRENT_LIST_DIR}/make_logo.cpp)
  target_link_libraries(make_logo PRIVATE Freetype::Freetype ZLIB::ZLIB)
  set(ovta_make_logo_command make_logo)
endif()

set(OVTA_LOGO_SOURCE ${CMAKE_BINARY_DIR}/generated/amt_mode_picture.cpp)
add_custom_command(
  OUTPUT ${OVTA_LOGO_SOURCE}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/generated
  COMMAND ${ovta_make_logo_command} ${OVTA_LOGO_FONT} ${OVTA_LOGO_SOURCE}
  DEPENDS ${ovta_make_logo_command} ${OVTA_LOGO_FONT}
  COMMENT "Drawing the AMT MODE picture"
  VERBATIM)
