# The tray application's extra wiring: the bundled symbol images, the X11/XInput2 client library for the
# outside-click watcher and the compositor check, the update plugin's location and header.

pkg_check_modules(LUMORA_XCB REQUIRED IMPORTED_TARGET xcb xcb-xinput)
target_link_libraries(LumoraApp PUBLIC PkgConfig::LUMORA_XCB)

# Symbol images, registered from Symbols.cpp (resources of a static library are initialised by hand).
file(GLOB LUMORA_SYMBOL_FILES RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${CMAKE_CURRENT_SOURCE_DIR}/resources/symbols/*.svg)
qt_add_resources(LumoraApp lumora_symbols
  PREFIX /symbols
  BASE resources/symbols
  FILES ${LUMORA_SYMBOL_FILES})

# The update plugin lives in the application's private library directory, found from the executable's own path.
file(RELATIVE_PATH private_libdir ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR}/lumora)
# Also read by the desktop end-to-end test, which installs a test plugin there.
set(LUMORA_PRIVATE_LIBDIR_FROM_BINDIR ${private_libdir} CACHE INTERNAL "private library directory, from bindir")
target_compile_definitions(LumoraApp PRIVATE
  LUMORA_PRIVATE_LIBDIR_FROM_BINDIR="${LUMORA_PRIVATE_LIBDIR_FROM_BINDIR}"
  LUMORA_VERSION="${PROJECT_VERSION}")
install(FILES Updater/LumoraUpdatePlugin.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lumora)
