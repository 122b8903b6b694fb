# SPDX-License-Identifier: GPL-3.0-or-later
# The tray application's extra wiring: the bundled symbol images, the session bus interface's description and the
# translations, the X11/XInput2 client library for the outside-click watcher and the compositor check, the update
# plugin's location and header.

pkg_check_modules(LUMORA_XCB REQUIRED IMPORTED_TARGET xcb xcb-xinput)
target_link_libraries(LumoraApp PUBLIC PkgConfig::LUMORA_XCB)

# Symbol images, registered from Symbols.cpp (resources of a static library are initialised by hand).
file(GLOB LUMORA_SYMBOL_FILES RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${CMAKE_CURRENT_SOURCE_DIR}/resources/symbols/*.svg)
qt_add_resources(LumoraApp lumora_symbols
  PREFIX /symbols
  BASE resources/symbols
  FILES ${LUMORA_SYMBOL_FILES})

# The session bus interface's introspection file, served as installed (registered from SessionBusInterface.cpp).
qt_add_resources(LumoraApp lumora_session_bus
  PREFIX /dbus
  BASE ${PROJECT_SOURCE_DIR}/data
  FILES ${PROJECT_SOURCE_DIR}/data/org.lumora.Lumora1.xml)

# Translations: the catalogues under translations/ are compiled and bundled as :/i18n/lumora_<language>.qm
# (registered from Translations.cpp). `cmake --build BUILD --target update_translations` refreshes the catalogues
# from the sources.
find_package(Qt6 REQUIRED COMPONENTS LinguistTools)
file(GLOB LUMORA_TS_FILES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/translations/lumora_*.ts)
qt_add_translations(LumoraApp
  TS_FILES ${LUMORA_TS_FILES}
  QM_FILES_OUTPUT_VARIABLE LUMORA_QM_FILES
  LUPDATE_OPTIONS -no-obsolete -locations none)
qt_add_resources(LumoraApp lumora_translations
  PREFIX /i18n
  BASE ${CMAKE_CURRENT_BINARY_DIR}
  FILES ${LUMORA_QM_FILES})

# The update plugin lives in the application's private library directory, found from the executable's own path.
file(RELATIVE_PATH private_libdir ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/lumora)
# Also read by the desktop end-to-end test, which installs a test plugin there.
set(LUMORA_PRIVATE_LIBDIR_FROM_BINDIR ${private_libdir} CACHE INTERNAL "private library directory, from bindir")
target_compile_definitions(LumoraApp PRIVATE
  LUMORA_PRIVATE_LIBDIR_FROM_BINDIR="${LUMORA_PRIVATE_LIBDIR_FROM_BINDIR}"
  LUMORA_VERSION="${PROJECT_VERSION}")
install(FILES Updater/LumoraUpdatePlugin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lumora)
