# Fails unless the guide GUIDE holds the whole of SOURCE as one fenced C block.
file(READ ${GUIDE} guide)
file(READ ${SOURCE} source)
string(FIND "${guide}" "```c\n${source}```\n" at)
if(at EQUAL -1)
  message(FATAL_ERROR "${GUIDE} does not show ${SOURCE} as it is; copy the file into the guide")
endif()
