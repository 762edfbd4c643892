# The tool's manual page, written in scdoc, and the test that it was built.
# Included by the project and by the test scenario that checks the test's
# message on a machine without scdoc, so both build and check the page the
# same way.

# Builds OUTPUT from the scdoc SOURCE as part of `all` and installs it in
# section 1 of the manual, when scdoc is found; otherwise warns that the page
# is not built.  The test of nikerkiog_manual_page_test then fails and says why.
function(nikerkiog_manual_page source output)
  find_program(NIKERKIOG_SCDOC scdoc)
  if(NOT NIKERKIOG_SCDOC)
    message(WARNING "scdoc not found: the manual page ${output} is not built (scripts/deps.sh native installs it)")
    return()
  endif()
  get_filename_component(name ${output} NAME)
  add_custom_command(OUTPUT ${output}
    COMMAND ${NIKERKIOG_SCDOC} < ${source} > ${output}
    DEPENDS ${source}
    COMMENT "Building the manual page ${name}")
  add_custom_target(nikerkiog_manpage ALL DEPENDS ${output})
  install(FILES ${output} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()

# A test named NAME that fails, with a message saying what to do, when the
# manual page PAGE was not built.
function(nikerkiog_manual_page_test name page)
  add_test(NAME ${name}
    COMMAND ${CMAKE_COMMAND} -DPAGE=${page} -P ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/ManualPageBuilt.cmake)
endfunction()
