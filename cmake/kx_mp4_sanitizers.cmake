# KX_MP4_SANITIZE=address,undefined builds everything with these sanitizers.
if(KX_MP4_SANITIZE)
    add_compile_options(-fsanitize=${KX_MP4_SANITIZE} -fno-omit-frame-pointer
                        -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KX_MP4_SANITIZE})
endif()
