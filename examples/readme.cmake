# Fails unless README holds the program exactly as it is built: cmake -DREADME= -DPROGRAM= -P
file(READ ${README} readme)
file(READ ${PROGRAM} program)
string(STRIP "${program}" program)
string(FIND "${readme}" "```c\n${program}\n```" place)
if(place EQUAL -1)
  message(FATAL_ERROR "README.md shows another program than ${PROGRAM}: copy it there")
endif()
