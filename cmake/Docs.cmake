# `make docs`: the guide (docs/*.md) and the reference from the headers'
# comments, with Doxygen, into build/docs/html. Doxygen is not needed for
# anything else: setup-deps installs it with --docs.
find_program(KIVCAM_DOXYGEN doxygen)
set(KIVCAM_DOCS_OUT ${CMAKE_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${KIVCAM_DOCS_OUT}/Doxyfile @ONLY)
if(KIVCAM_DOXYGEN)
  # The public C headers must document everything they declare; the node-map
  # engine's C++ headers are shown as they are.
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${KIVCAM_DOCS_OUT}/html
    COMMAND ${KIVCAM_DOXYGEN} ${KIVCAM_DOCS_OUT}/Doxyfile
    COMMAND ${CMAKE_COMMAND} -DWARNINGS=${KIVCAM_DOCS_OUT}/warnings.txt -P ${PROJECT_SOURCE_DIR}/cmake/CheckDocWarnings.cmake
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "The guide and the reference: ${KIVCAM_DOCS_OUT}/html/index.html"
    VERBATIM)
else()
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E echo "doxygen is not installed: run make docs (it installs it)"
    COMMAND ${CMAKE_COMMAND} -E false
    VERBATIM)
endif()
