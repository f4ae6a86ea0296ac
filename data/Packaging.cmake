# `cpack -G DEB` in the build folder makes evenloud_<version>_<arch>.deb; its
# library dependencies are read from the programs by dpkg-shlibdeps.
set(CPACK_PACKAGE_NAME evenloud)
set(CPACK_PACKAGE_VENDOR "The Evenloud authors")
set(CPACK_PACKAGE_CONTACT "The Evenloud authors <maintainers@evenloud.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "bring audio and video files to one loudness")
set(CPACK_PACKAGE_DESCRIPTION
    "Evenloud measures batches of audio and video files and normalises them in two\n"
    "passes with FFmpeg's EBU R128 loudnorm filter, keeping format, tags, cover art\n"
    "and video. It comes as a Qt window (evenloud) and a command-line twin\n"
    "(evenloud-cli).")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
set(CPACK_PACKAGE_HOMEPAGE_URL "https://evenloud.org/")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Plugins are loaded at run time, so dpkg-shlibdeps cannot see them.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "qt6-wayland, qt6-qpa-plugins")
set(CPACK_STRIP_FILES ON)
include(CPack)
