# Generated rule sets and packet traces (scripts/gen-rulesets.py), written
# at build time into `dir` by the custom target `target`: three flavours of
# 1 to 10,000 rules, seeded, so every build writes the same files.
find_program(NIKERKIOG_PYTHON3 NAMES python3 PATHS /usr/bin NO_DEFAULT_PATH)
function(nikerkiog_generate_rulesets target dir)
  set(script ${PROJECT_SOURCE_DIR}/scripts/gen-rulesets.py)
  add_custom_command(
    OUTPUT ${dir}/generated.stamp
    COMMAND ${NIKERKIOG_PYTHON3} ${script} --out ${dir}
    COMMAND ${CMAKE_COMMAND} -E touch ${dir}/generated.stamp
    DEPENDS ${script}
    COMMENT "Generating rule sets and packet traces in ${dir}"
    VERBATIM)
  add_custom_target(${target} DEPENDS ${dir}/generated.stamp)
endfunction()
