# cmake -DINPUT=FILE -DOUTPUT=FILE -P EmbedText.cmake: writes the text of INPUT to OUTPUT as a
# C++ raw string literal, for a source to #include where it wants the text.
file(READ "${INPUT}" text)
string(FIND "${text}" ")ksmem_text\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${INPUT} holds the literal's closing delimiter")
endif()
file(WRITE "${OUTPUT}" "R\"ksmem_text(${text})ksmem_text\"\n")
