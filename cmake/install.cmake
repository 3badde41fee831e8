# Where a package puts things; a site's home gets its own copy of the module by "zul init".
include(GNUInstallDirs)
install(TARGETS ZULd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS zul RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS tape LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/zul)
install(DIRECTORY include/zul DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES docs/man/zul.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/zul.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME zul)
