# KEL_SANITIZE=address,undefined (or thread) instruments every target of this build.
if(KEL_SANITIZE)
  set(_kel_san_flags -fsanitize=${KEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_compile_options(${_kel_san_flags})
  add_link_options(-fsanitize=${KEL_SANITIZE})
endif()
