# What the bundles for macOS have in common: their language, and the names by which the system ties the extension to its
# application.
enable_language(OBJCXX)
set(CMAKE_OBJCXX_STANDARD ${CMAKE_CXX_STANDARD})
set(CMAKE_OBJCXX_STANDARD_REQUIRED ON)
set(CMAKE_OBJCXX_EXTENSIONS OFF)

set(ORVANE_TEAM "" CACHE STRING "The identifier of the team that signs; empty for none")
if(NOT ORVANE_TEAM MATCHES "^([A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9])?$")
  message(FATAL_ERROR "ORVANE_TEAM is \"${ORVANE_TEAM}\": a team's identifier has ten capital letters and digits")
endif()
# Development profiles grant the same under the name content-filter-provider.
set(ORVANE_FILTER_ENTITLEMENT content-filter-provider-systemextension CACHE STRING "What the profiles grant")
set(ORVANE_BUNDLE_IDENTIFIER org.orvane.OrvaneSE)
# The group that the extension shares with its application. The name of the extension's Mach service begins with it, or
# the system refuses to register the service.
set(ORVANE_APPLICATION_GROUP org.orvane)
if(NOT ORVANE_TEAM STREQUAL "")
  string(PREPEND ORVANE_APPLICATION_GROUP ${ORVANE_TEAM}.)
endif()
# Two keys of Info.plist bear this name: the system registers the one, the program reads the other.
set(ORVANE_MACH_SERVICE ${ORVANE_APPLICATION_GROUP}.OrvaneSE)

# orvane_entitlements(FILE IDENTIFIER): what codesign(1) is to grant the bundle of that identifier, from FILE.in in the
# folder. A team's provisioning profile is held against two more entries.
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
