# Run as `cmake -DPAGE=FILE -P ManualPageBuilt.cmake`: fails with a message
# that says why and what to do when the manual page FILE was not built.
if(NOT EXISTS "${PAGE}")
  message(FATAL_ERROR
    "The manual page ${PAGE} was not built: scdoc was not found when the build was configured. "
    "Install it (scripts/deps.sh native installs everything the build and the tests use), "
    "then configure and build again.")
endif()
file(SIZE "${PAGE}" size)
if(size EQUAL 0)
  message(FATAL_ERROR "The manual page ${PAGE} is empty: scdoc failed to build it; build again and read its error.")
endif()
