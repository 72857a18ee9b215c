set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_VENDOR "The OQLinux maintainers")
include(CPack)
