# Runs at install time, when the final prefix is known (cmake --install
# --prefix, or the package's /usr): the unit and the man page name installed
# paths. Expects GLIMMERSTRAND_SOURCE_DIR, GLIMMERSTRAND_BINARY_DIR,
# GLIMMERSTRAND_BINDIR and PROJECT_VERSION from the install code before it.
set(prefix "${CMAKE_INSTALL_PREFIX}")
set(destination "${prefix}")  # file(INSTALL) adds DESTDIR itself
set(GLIMMERSTRAND_INSTALL_BINDIR "${prefix}/${GLIMMERSTRAND_BINDIR}")
set(GLIMMERSTRAND_INSTALL_UNITDIR "${prefix}/lib/systemd/user")
set(packaging "${GLIMMERSTRAND_SOURCE_DIR}/packaging")
# One folder per install target, so installs that run at once do not share files.
string(MD5 target "$ENV{DESTDIR}${prefix}")
set(generated "${GLIMMERSTRAND_BINARY_DIR}/packaging/${target}")
configure_file("${packaging}/glimmerstrand.service.in" "${generated}/glimmerstrand.service" @ONLY)
configure_file("${packaging}/glimmerstrand.1.in" "${generated}/glimmerstrand.1" @ONLY)
# Debian's zsh reads packaged completions from vendor-completions, and local
# ones from site-functions.
if(prefix STREQUAL "/usr")
  set(zshFolder share/zsh/vendor-completions)
else()
  set(zshFolder share/zsh/site-functions)
endif()
file(INSTALL "${generated}/glimmerstrand.service" DESTINATION "${destination}/lib/systemd/user")
file(INSTALL "${generated}/glimmerstrand.1" DESTINATION "${destination}/share/man/man1")
file(INSTALL "${packaging}/glimmerstrand.bash" DESTINATION "${destination}/share/bash-completion/completions"
     RENAME glimmerstrand)
file(INSTALL "${packaging}/_glimmerstrand" DESTINATION "${destination}/${zshFolder}")
