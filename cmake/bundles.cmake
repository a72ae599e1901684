# Settings that the extension's bundle and the application's bundle share on macOS: Objective-C++, and the names that
# connect the two bundles.
enable_language(OBJCXX)
set(CMAKE_OBJCXX_STANDARD ${CMAKE_CXX_STANDARD})
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)

set(ORVANE_TEAM "" CACHE STRING "The identifier of the signing team, or empty")
if(NOT ORVANE_TEAM MATCHES "^([A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9])?$")
  message(FATAL_ERROR "ORVANE_TEAM is \"${ORVANE_TEAM}\": a team's identifier has ten capital letters or digits")
endif()
# The name of the filter entitlement, which must be the same as in the provisioning profiles. The default here is the
# name in distribution profiles. The name in development profiles is content-filter-provider.
set(ORVANE_FILTER_ENTITLEMENT content-filter-provider-systemextension CACHE STRING "The filter entitlement of the profiles")
set(ORVANE_BUNDLE_IDENTIFIER org.orvane.OrvaneSE)
# The application group of the extension and its application. The system registers the extension's Mach service only if
# the service's name begins with the group's name.
set(ORVANE_APPLICATION_GROUP org.orvane)
if(NOT ORVANE_TEAM STREQUAL "")
  string(PREPEND ORVANE_APPLICATION_GROUP ${ORVANE_TEAM}.)
endif()
# The name of the extension's Mach service. The extension's Info.plist has it under two keys: the system reads
# NEMachServiceName, and the extension reads NSEndpointSecurityMachServiceName.
set(ORVANE_MACH_SERVICE ${ORVANE_APPLICATION_GROUP}.OrvaneSE)

# orvane_entitlements(FILE IDENTIFIER): generates from FILE.in the entitlements with which codesign(1) signs the bundle
# IDENTIFIER. If ORVANE_TEAM is set, adds the two entries that the system compares with the provisioning profile.
function(orvane_entitlements file identifier)
  set(ORVANE_TEAM_ENTITLEMENTS "")
  if(NOT ORVANE_TEAM STREQUAL "")
    set(ORVANE_TEAM_ENTITLEMENTS "
	<key>com.apple.application-identifier</key>
	<string>${ORVANE_TEAM}.${identifier}</string>
	<key>com.apple.developer.team-identifier</key>
	<string>${ORVANE_TEAM}</string>")
  endif()
  cmake_path(GET file FILENAME name)
  configure_file(${file}.in ${PROJECT_BINARY_DIR}/${name} @ONLY)
endfunction()
