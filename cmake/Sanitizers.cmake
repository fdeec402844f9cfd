if(TANDOR_SANITIZE)
  add_compile_options(-fsanitize=${TANDOR_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TANDOR_SANITIZE})
endif()
