# Reads the fenced code blocks of one language out of a Markdown file, so that
# the build and the tests use the README's code exactly as it stands there.
#
#   krcommon_readme_blocks(<file> <language> <prefix>)
#
# sets <prefix>_COUNT and <prefix>_1 ... <prefix>_N to the blocks' text, in
# order. The text is kept whole, semicolons included, so quote it when using it.
function(krcommon_readme_blocks file language prefix)
  file(READ "${file}" rest)
  set(fence "```${language}\n")
  string(LENGTH "${fence}" fence_length)
  set(count 0)
  while(TRUE)
    string(FIND "${rest}" "${fence}" start)
    if(start EQUAL -1)
      break()
    endif()
    math(EXPR start "${start} + ${fence_length}")
    string(SUBSTRING "${rest}" ${start} -1 rest)
    string(FIND "${rest}" "```" end)
    if(end EQUAL -1)
      message(FATAL_ERROR "${file}: a ${language} block is not closed")
    endif()
    math(EXPR count "${count} + 1")
    string(SUBSTRING "${rest}" 0 ${end} block)
    set(${prefix}_${count} "${block}" PARENT_SCOPE)
    string(SUBSTRING "${rest}" ${end} -1 rest)
  endwhile()
  set(${prefix}_COUNT ${count} PARENT_SCOPE)
endfunction()
