# Tests of every vxtool command on sample data: what it prints and its exit status, with bad
# input as well as good.

# vx_cli_test(<name> <status> <regex> <argument>...): runs `vxtool <argument>...` and passes
# when it exits with <status> and its output (standard output, then standard error) matches
# <regex>.
function(vx_cli_test name status regex)
  add_test(NAME vxtool.${name} COMMAND sh -c "\"$0\" \"$@\" 2>&1; test $? -eq ${status}" $<TARGET_FILE:vxtool> ${ARGN})
  set_tests_properties(vxtool.${name} PROPERTIES PASS_REGULAR_EXPRESSION "${regex}")
endfunction()

vx_cli_test(help 0 "^usage: vxtool <command>" --help)
# Every command and subcommand answers --help (and -h) with its usage and status 0.
add_test(NAME vxtool.help_everywhere COMMAND sh -c
  "for words in demo iff 'iff dump' 'iff extract' 'iff hex' env 'env eval' 'env plot' image 'image blur' \
     'image convert' 'image resample' 'image convolve' 'image mipmap' 'image checker' 'image info' plugins 'plugins scan' \
     'plugins list' 'plugins activate' config 'config list' 'config get' 'config set' hub; do \
     for flag in --help -h; do \
       \"$0\" $words $flag | grep -q '^usage: vxtool' || { echo \"no help from: $words $flag\"; exit 1; }; \
     done; \
   done; echo 'all answer --help'" $<TARGET_FILE:vxtool>)
set_tests_properties(vxtool.help_everywhere PROPERTIES PASS_REGULAR_EXPRESSION "^all answer --help\n$")
# A directory given where a file is expected, to read or to write: one message from every
# command (each prints a 1 when it gave it).
add_test(NAME vxtool.directory_for_a_file COMMAND sh -c
  "d='${CMAKE_CURRENT_BINARY_DIR}'; e='${PROJECT_SOURCE_DIR}/fuzz/corpus/env/text.txt'; \
   for words in 'iff dump' 'iff hex' 'env eval' 'env plot' 'image info' 'image blur' 'config list' 'config set'; do \
     case $words in \
       'iff hex') \"$0\" iff hex \"$d\" 0 ;; \
       'env eval') \"$0\" env eval \"$d\" 1 ;; \
       'env plot') \"$0\" env plot \"$e\" -o \"$d\" ;; \
       'image blur') \"$0\" image blur \"$d\" out.png ;; \
       'config set') \"$0\" config set \"$d\" A 1 ;; \
       *) \"$0\" $words \"$d\" ;; \
     esac 2>&1 | grep -c ': is a directory, not a file$'; \
   done | tr -d '\\n'; echo" $<TARGET_FILE:vxtool>)
set_tests_properties(vxtool.directory_for_a_file PROPERTIES PASS_REGULAR_EXPRESSION "^11111111\n$")
vx_cli_test(unknown_command 2 "^vxtool: unknown command 'frobnicate'\nusage: vxtool" frobnicate)

# `vxtool demo`: every section passes and its files land in --out; then the other commands
# read them: the pictures open (PNG through libpng, SVG through an XML parser), the IFF file
# dumps and the saved envelopes evaluate and plot.
set(vx_demo_dir ${CMAKE_CURRENT_BINARY_DIR}/demo_out)
add_test(NAME vxtool.demo COMMAND vxtool demo --out ${vx_demo_dir})
set_tests_properties(vxtool.demo PROPERTIES
  PASS_REGULAR_EXPRESSION "demo files are in [^\n]*demo_out:\n(  [^\n]+\n)+demo finished"
  FAIL_REGULAR_EXPRESSION "FAILED"
  FIXTURES_SETUP vx_demo_files)
vx_cli_test(demo_pictures_open 0
  "picture\\.png: PNG 64x48, 8-bit RGB, RGB bytes\n.*blurred\\.png: PNG 64x48, 8-bit RGB, RGB bytes\n.*half\\.png: PNG 32x24, 8-bit RGBA, RGBA bytes\n.*double\\.png: PNG 128x96, 8-bit RGB, RGB bytes\n.*mip-0\\.png: PNG 64x48, 8-bit RGB, RGB bytes\n.*mip-6\\.png: PNG 1x1, 8-bit RGB, RGB bytes\n$"
  image info ${vx_demo_dir}/picture.png ${vx_demo_dir}/blurred.png ${vx_demo_dir}/half.png
  ${vx_demo_dir}/double.png ${vx_demo_dir}/mip-0.png ${vx_demo_dir}/mip-6.png)
vx_cli_test(demo_iff_file 0
  "\"id\": \"FORM\", \"offset\": 0, \"length\": 68, \"type\": \"SCNE\", \"chunks\": \\[\n    {\"id\": \"NAME\", \"offset\": 12, \"length\": 6},\n    {\"id\": \"OBJS\", \"offset\": 26, \"length\": 30, \"chunks\": \\[\n      {\"id\": \"KEYS\", \"offset\": 34, \"length\": 12},"
  iff dump --json --sub-chunks ${vx_demo_dir}/scene.iff)
set(vx_demo_users vxtool.demo_pictures_open vxtool.demo_iff_file)
find_program(VX_XMLLINT xmllint)
if(VX_XMLLINT)
  add_test(NAME vxtool.demo_svg_is_well_formed COMMAND ${VX_XMLLINT} --noout ${vx_demo_dir}/envelopes.svg)
  list(APPEND vx_demo_users vxtool.demo_svg_is_well_formed)
else()
  message(STATUS "xmllint not found (Debian: libxml2-utils): the demo's SVG is not checked")
endif()
# Both saved forms hold the twelve curves; at 3.5 s the Constant one holds its last key.
add_test(NAME vxtool.demo_envelope_files COMMAND sh -c
  "'$<TARGET_FILE:vxtool>' env eval '${vx_demo_dir}/envelopes.iff' 3.5 && \
   '$<TARGET_FILE:vxtool>' env eval '${vx_demo_dir}/envelopes.txt' 3.5 && \
   '$<TARGET_FILE:vxtool>' env plot '${vx_demo_dir}/envelopes.txt' -o '${vx_demo_dir}/replot.svg'")
set_tests_properties(vxtool.demo_envelope_files PROPERTIES PASS_REGULAR_EXPRESSION
  "behaviour Constant\n  3\\.5 0\\.75\n.*behaviour Constant\n  3\\.5 0\\.75\n.*wrote [^\n]*replot\\.svg \\(12 envelopes\\)")
list(APPEND vx_demo_users vxtool.demo_envelope_files)
set_tests_properties(${vx_demo_users} PROPERTIES FIXTURES_REQUIRED vx_demo_files)
vx_cli_test(demo_bad_command_line 2 "vxtool demo: unknown option '--colour'" demo --colour)
vx_cli_test(demo_unusable_directory 3 "CMakeLists\\.txt/out: cannot make the directory"
  demo --out ${CMAKE_CURRENT_SOURCE_DIR}/CMakeLists.txt/out)

# `vxtool image`: a generated picture through every operation; unreadable input.
set(vx_image_dir ${CMAKE_CURRENT_BINARY_DIR}/image_test_files)
add_test(NAME vxtool.image_operations COMMAND sh -c
  "mkdir -p '${vx_image_dir}' && cd '${vx_image_dir}' && \
   '$<TARGET_FILE:vxtool>' image checker in.png --width 100 --height 60 && \
   '$<TARGET_FILE:vxtool>' image blur in.png blur.png --taps 4 --sigma 2 && \
   '$<TARGET_FILE:vxtool>' image resample in.png half.png --scale 0.5 && \
   '$<TARGET_FILE:vxtool>' image convolve in.png sharp.png --matrix 0,-1,0,-1,5,-1,0,-1,0 && \
   '$<TARGET_FILE:vxtool>' image mipmap in.png mip.png")
set_tests_properties(vxtool.image_operations PROPERTIES PASS_REGULAR_EXPRESSION "wrote mip-7.png \\(1x1\\)")
# convolve uses its matrix as given; --normalize divides it by its sum first, so a centre of 2
# normalised is the identity and an unnormalised one is not.
add_test(NAME vxtool.image_convolve_normalize COMMAND sh -c
  "cd '${vx_image_dir}' && \
   '$<TARGET_FILE:vxtool>' image convolve in.png same.png --matrix 0,0,0,0,1,0,0,0,0 && \
   '$<TARGET_FILE:vxtool>' image convolve in.png halved.png --matrix 0,0,0,0,2,0,0,0,0 --normalize && \
   '$<TARGET_FILE:vxtool>' image convolve in.png doubled.png --matrix 0,0,0,0,2,0,0,0,0 && \
   cmp same.png halved.png && ! cmp -s same.png doubled.png && \
   '$<TARGET_FILE:vxtool>' image convolve in.png zero.png --matrix 1,-1 --normalize 2>&1; test $? -eq 2")
set_tests_properties(vxtool.image_convolve_normalize PROPERTIES DEPENDS vxtool.image_operations PASS_REGULAR_EXPRESSION
  "wrote doubled\\.png \\(100x60\\)\nvxtool image: --normalize: the matrix's numbers add up to 0\n")
# --threads: the same files from one thread and from three, on a picture large enough to split;
# a count outside 1..64 is refused.
add_test(NAME vxtool.image_threads COMMAND sh -c
  "cd '${vx_image_dir}' && \
   '$<TARGET_FILE:vxtool>' image checker big.png --width 640 --height 480 && \
   for op in 'blur --taps 7' 'resample --scale 0.7 --mode 4' 'convolve --matrix 1,2,1,2,4,2,1,2,1 --normalize'; do \
     '$<TARGET_FILE:vxtool>' image $op big.png one.png --threads 1 && \
     '$<TARGET_FILE:vxtool>' image $op big.png three.png --threads 3 && cmp one.png three.png || exit 1; \
   done && \
   '$<TARGET_FILE:vxtool>' image blur big.png x.png --threads 0 2>&1; test $? -eq 2")
set_tests_properties(vxtool.image_threads PROPERTIES DEPENDS vxtool.image_operations PASS_REGULAR_EXPRESSION
  "vxtool image: --threads wants a number from 1 to 64, not '0'")
vx_cli_test(image_missing_input 3 "absent\\.png: cannot read: No such file or directory" image blur ${vx_image_dir}/absent.png out.png)
vx_cli_test(image_info_not_png 3 "CMakeLists\\.txt: cannot read: not a known image format \\(tried [^)]*VX_PNGLoader"
  image info ${CMAKE_CURRENT_SOURCE_DIR}/CMakeLists.txt)
# `image convert`: the saver comes from the extension or --saver; info reads headers only; a
# write that keeps fewer bits than the input says so.
add_test(NAME vxtool.image_convert COMMAND sh -c
  "cd '${vx_image_dir}' && \
   '$<TARGET_FILE:vxtool>' image convert in.png in.jpg --quality 80 && \
   '$<TARGET_FILE:vxtool>' image convert in.jpg in.bmp && \
   '$<TARGET_FILE:vxtool>' image convert in.bmp in32.png --saver 'VX_PNG32(.png)' && \
   '$<TARGET_FILE:vxtool>' image convolve in32.png wide.png --matrix 1 --saver 'VX_PNG32(.png)' && \
   '$<TARGET_FILE:vxtool>' image info in.jpg in.bmp in32.png 2>&1")
set_tests_properties(vxtool.image_convert PROPERTIES DEPENDS vxtool.image_operations PASS_REGULAR_EXPRESSION
  "in\\.jpg: JPEG 100x60, 8-bit YCbCr, RGB bytes\nin\\.bmp: BMP 100x60, 8-bit RGB, RGB bytes\nin32\\.png: PNG 100x60, 8-bit RGBA, RGBA bytes\n$")
vx_cli_test(image_no_saver 1 "out\\.xyz: cannot write: no image saver for this file name's extension"
  image convert ${CMAKE_CURRENT_SOURCE_DIR}/../imagefile/testdata/rgb16.png ${vx_image_dir}/out.xyz)
vx_cli_test(image_16_to_8_note 0 "note: [^\n]*rgb16\\.jpg holds 8 bits per channel; the input had 16"
  image convert ${CMAKE_CURRENT_SOURCE_DIR}/../imagefile/testdata/rgb16.png ${vx_image_dir}/rgb16.jpg)
vx_cli_test(image_bad_quality 2 "--quality wants a whole number from 1 to 100, not '0'" image convert a.png b.jpg --quality 0)
vx_cli_test(image_bad_option 2 "unknown option --radius" image blur in.png out.png --radius 3)

# `vxtool iff`: only groups hold chunks (the sample's BOX data is shown as data unless
# --sub-chunks asks for the suite's sub-chunks); a truncated file shows the sound chunks, then
# names the file and the chunk that runs past its end.
set(vx_iff_sample ${PROJECT_SOURCE_DIR}/fuzz/corpus/iff/nested.iff)
vx_cli_test(iff_dump 0 "\n  'BOX '  level 1  offset 24  length 24\n  'ODD '  level 1  offset 56  length 3\n$"
  iff dump ${vx_iff_sample})
vx_cli_test(iff_dump_sub_chunks 0 "\n      'DEEP'  level 3  offset 48  length 1\n  'ODD '  level 1  offset 56  length 3\n$"
  iff dump --sub-chunks ${vx_iff_sample})
vx_cli_test(iff_dump_json 0
  "{\"id\": \"SUB2\", \"offset\": 42, \"length\": 8, \"chunks\": \\[\n        {\"id\": \"DEEP\", \"offset\": 48, \"length\": 1}\n      \\]}\n    \\]},\n    {\"id\": \"ODD \", \"offset\": 56, \"length\": 3}\n  \\]}\n\\]}\n$"
  iff dump --json --sub-chunks ${vx_iff_sample})
add_test(NAME vxtool.iff_truncated_file COMMAND sh -c
  "head -c 30 '${vx_iff_sample}' > '${CMAKE_CURRENT_BINARY_DIR}/truncated.iff' && \
   '$<TARGET_FILE:vxtool>' iff dump '${CMAKE_CURRENT_BINARY_DIR}/truncated.iff' 2>&1; test $? -eq 3 && \
   '$<TARGET_FILE:vxtool>' iff dump --json '${CMAKE_CURRENT_BINARY_DIR}/truncated.iff' 2>/dev/null; test $? -eq 3")
set_tests_properties(vxtool.iff_truncated_file PROPERTIES PASS_REGULAR_EXPRESSION
  "  'NAME'  level 1  offset 12  length 4\nvxtool iff: [^\n]*truncated\\.iff: 'FORM' at offset 0: its 60 bytes run past the end of the file \\(22 left\\)\n.*{\"id\": \"NAME\", \"offset\": 12, \"length\": 4}\n  \\]}\n\\], \"problem\": \"'FORM' at offset 0: [^\n]*\"}\n$")
# A CAT of a LIST with a PROP and two FORMs (an animation's frames): every group at every
# depth with its type; one chunk extracted by names and by indices, one shown in hex.
set(vx_iff_cat ${CMAKE_CURRENT_BINARY_DIR}/cat_list_form.iff)
set(vx_iff_cat_bytes "CAT \\000\\000\\000\\126ANIMLIST\\000\\000\\000\\112ANIMPROP\\000\\000\\000\\020ILBMBMHD\\000\\000\\000\\004abcdFORM\\000\\000\\000\\020ILBMBODY\\000\\000\\000\\003xyz\\000FORM\\000\\000\\000\\016ILBMBODY\\000\\000\\000\\002uv")
add_test(NAME vxtool.iff_groups_at_any_depth COMMAND sh -c
  "printf '${vx_iff_cat_bytes}' > '${vx_iff_cat}' && \
   '$<TARGET_FILE:vxtool>' iff dump '${vx_iff_cat}' && '$<TARGET_FILE:vxtool>' iff dump --json '${vx_iff_cat}'")
set_tests_properties(vxtool.iff_groups_at_any_depth PROPERTIES PASS_REGULAR_EXPRESSION
  "^'CAT '  level 0  offset 0  length 86  type 'ANIM'\n  'LIST'  level 1  offset 12  length 74  type 'ANIM'\n    'PROP'  level 2  offset 24  length 16  type 'ILBM'\n      'BMHD'  level 3  offset 36  length 4\n    'FORM'  level 2  offset 48  length 16  type 'ILBM'\n      'BODY'  level 3  offset 60  length 3\n    'FORM'  level 2  offset 72  length 14  type 'ILBM'\n      'BODY'  level 3  offset 84  length 2\n{.*\"type\": \"ILBM\", \"chunks\": \\[\n        {\"id\": \"BODY\", \"offset\": 84, \"length\": 2}\n      \\]}\n    \\]}\n  \\]}\n\\]}\n$"
  FIXTURES_SETUP vx_iff_cat)
add_test(NAME vxtool.iff_extract_and_hex COMMAND sh -c
  "cd '${CMAKE_CURRENT_BINARY_DIR}' && \
   '$<TARGET_FILE:vxtool>' iff extract '${vx_iff_cat}' 'CAT.ANIM/LIST/FORM.ILBM[1]/BODY' -o by_name.bin && \
   '$<TARGET_FILE:vxtool>' iff extract '${vx_iff_cat}' 0/0/2/0 --out by_index.bin && \
   printf uv | cmp - by_name.bin && cmp by_name.bin by_index.bin && \
   '$<TARGET_FILE:vxtool>' iff extract '${vx_iff_cat}' CAT/LIST/PROP -o prop.bin && od -c prop.bin && \
   '$<TARGET_FILE:vxtool>' iff hex '${vx_iff_cat}' CAT/LIST/FORM/BODY")
set_tests_properties(vxtool.iff_extract_and_hex PROPERTIES FIXTURES_REQUIRED vx_iff_cat PASS_REGULAR_EXPRESSION
  "wrote by_name\\.bin \\(2 bytes\\)\nwrote by_index\\.bin \\(2 bytes\\)\nwrote prop\\.bin \\(16 bytes\\)\n0000000   I   L   B   M   B   M   H   D  \\\\0  \\\\0  \\\\0 004   a   b   c   d\n.*'BODY' at offset 60: 3 bytes of data\n        68  78 79 7a +\\|xyz\\|\n$")
add_test(NAME vxtool.iff_extract_refusals COMMAND sh -c
  "cd '${CMAKE_CURRENT_BINARY_DIR}' && rm -f none.bin && \
   '$<TARGET_FILE:vxtool>' iff extract '${vx_iff_cat}' CAT/LIST/FORM[2] -o none.bin 2>&1; test $? -eq 3 && test ! -e none.bin && \
   '$<TARGET_FILE:vxtool>' iff hex '${vx_iff_cat}' CAT/LIST/PROP/BMHD/X 2>&1; test $? -eq 3 && \
   '$<TARGET_FILE:vxtool>' iff hex '${vx_iff_cat}' 'CAT/[1]' 2>&1; test $? -eq 2")
set_tests_properties(vxtool.iff_extract_refusals PROPERTIES FIXTURES_REQUIRED vx_iff_cat PASS_REGULAR_EXPRESSION
  "cat_list_form\\.iff: no chunk at CAT/LIST/FORM\\[2\\]\n.*'BMHD' at offset 36 holds no chunks\nvxtool iff: not a chunk path: 'CAT/\\[1\\]'")
# Files made by sox: 8SVX sample data stays data, AIFF chunks as sox writes them.
find_program(VX_SOX sox)
if(VX_SOX)
  add_test(NAME vxtool.iff_sox_files COMMAND sh -c
    "cd '${CMAKE_CURRENT_BINARY_DIR}' && \
     '${VX_SOX}' -n -r 8000 -b 8 -c 1 sox.8svx synth 0.05 sine 440 && '${VX_SOX}' -n -r 8000 -c 2 sox.aiff synth 0.01 sine 440 && \
     '$<TARGET_FILE:vxtool>' iff dump sox.8svx && '$<TARGET_FILE:vxtool>' iff dump sox.aiff")
  set_tests_properties(vxtool.iff_sox_files PROPERTIES PASS_REGULAR_EXPRESSION
    "type '8SVX'\n  'VHDR'  level 1  offset 12  length 20\n(  '[A-Z ]+'  level 1 [^\n]*\n)*  'BODY'  level 1  offset [0-9]+  length 400\n'FORM'  level 0  offset 0  length [0-9]+  type 'AIFF'\n(  '[A-Z ]+'  level 1 [^\n]*\n)*  'SSND'  level 1 [^\n]*\n$")
else()
  message(STATUS "sox not found: vxtool iff is not tried on files made by sox")
endif()
# A 3 GiB file (sparse) whose last chunk lies 3 GiB in, behind 3 GiB of data: the dump walks
# it through a read stream and stays small (peak memory under 32 MB by /usr/bin/time -v).
add_test(NAME vxtool.iff_dump_3gib_file COMMAND sh ${PROJECT_SOURCE_DIR}/tests/iff_big_file_test.sh
  $<TARGET_FILE:vxtool> ${CMAKE_CURRENT_BINARY_DIR}/big_3gib.iff)
set_tests_properties(vxtool.iff_dump_3gib_file PROPERTIES SKIP_RETURN_CODE 77 PASS_REGULAR_EXPRESSION
  "  'BIG '  level 1  offset 24  length 3221225428\n  'TAIL'  level 1  offset 3221225460  length 4\npeak memory [0-9]+ kB\n")
vx_cli_test(iff_not_iff 3 "^{\"file\": \"[^\"]*text\\.txt\", \"chunks\": \\[\\], \"problem\": \"not an IFF file [^\n]*\"}\nvxtool iff: [^\n]*text\\.txt: not an IFF file \\(it begins with 'Enve', not FORM, LIST or CAT\\)" iff dump --json ${PROJECT_SOURCE_DIR}/fuzz/corpus/env/text.txt)
vx_cli_test(iff_missing_file 3 "absent\\.iff: cannot open the file" iff dump ${CMAKE_CURRENT_BINARY_DIR}/absent.iff)
vx_cli_test(iff_no_file 2 "vxtool iff: dump wants a FILE" iff dump)
vx_cli_test(iff_two_files 2 "unexpected argument 'b'" iff dump a b)

# `vxtool env`: values of the sample envelopes as text and JSON, a plot; a missing file, a
# malformed one and a bad time.
set(vx_env_seeds ${PROJECT_SOURCE_DIR}/fuzz/corpus/env)
vx_cli_test(env_eval 0 "^Pos\n  0\\.5 1\n  1 2\n  -1 2\n  3 5\n$" env eval ${vx_env_seeds}/binary.iff 0.5 1 -1 3)
vx_cli_test(env_eval_text 0 "^Rotation\\.H\n  0\\.1 0\\.2559999[0-9]*\n  0\\.25 -2\n\\(envelope\\)\n  0\\.1 2\n  0\\.25 2\n$"
  env eval ${vx_env_seeds}/text.txt 0.1 0.25)
vx_cli_test(env_eval_json 0
  "^{\"file\": \"[^\"]*text\\.txt\", \"envelopes\": \\[\n  {\"name\": \"Rotation\\.H\", \"values\": \\[\\[0\\.25, -2\\], \\[1e\\+09, [-0-9.e+]+\\]\\]},\n  {\"name\": \"\\(envelope\\)\", \"values\": \\[\\[0\\.25, 2\\], \\[1e\\+09, 2\\]\\]}\n\\]}\n$"
  env eval --json ${vx_env_seeds}/text.txt 0.25 1e9)
vx_cli_test(env_plot 0 "wrote [^\n]*env_plot\\.svg \\(2 envelopes\\)"
  env plot ${vx_env_seeds}/text.txt --out ${CMAKE_CURRENT_BINARY_DIR}/env_plot.svg)
# The plot's axes: value and time tick labels, and the four key times of the first envelope
# marked on its time axis.
add_test(NAME vxtool.env_plot_axes COMMAND sh -c
  "'$<TARGET_FILE:vxtool>' env plot '${vx_env_seeds}/text.txt' -o '${CMAKE_CURRENT_BINARY_DIR}/axes.svg' >/dev/null &&    grep -o 'class=.[a-z-]*-tick.[^>]*>[^<]*<\\|<title>key at [^<]*<\\|time (s)' '${CMAKE_CURRENT_BINARY_DIR}/axes.svg' |    sed 's/ x=[^>]*//' | head -n 24")
set_tests_properties(vxtool.env_plot_axes PROPERTIES PASS_REGULAR_EXPRESSION
  "^class=.value-tick.>-2<\nclass=.value-tick.>0<\nclass=.value-tick.>2<\nclass=.time-tick.>-1\\.5<\nclass=.time-tick.>-1<\n(class=.time-tick.>[-0-9.]+<\n)*class=.time-tick.>3<\ntime \\(s\\)\n<title>key at 0 s<\n<title>key at 0\\.25 s<\n<title>key at 1 s<\n<title>key at 1\\.5 s<\n")
# Names that are not UTF-8 (Latin-1 bytes) come out as escapes; UTF-8 passes through.
add_test(NAME vxtool.env_eval_json_utf8 COMMAND sh -c
  "printf 'Envelope 0 {\\n  Name \"caf\\303\\251 \\351t\\351\\377\"\\n  Key 0 1\\n}\\n' > '${CMAKE_CURRENT_BINARY_DIR}/latin1.txt' &&    '$<TARGET_FILE:vxtool>' env eval --json '${CMAKE_CURRENT_BINARY_DIR}/latin1.txt' 0")
set_tests_properties(vxtool.env_eval_json_utf8 PROPERTIES PASS_REGULAR_EXPRESSION
  "\"name\": \"café \\\\u00e9t\\\\u00e9\\\\u00ff\", \"values\": \\[\\[0, 1\\]\\]}")
vx_cli_test(env_missing_file 3 "absent\\.iff: cannot open the file" env eval ${vx_env_seeds}/absent.iff 1)
vx_cli_test(env_malformed_file 3 "CMakeLists\\.txt: line [0-9]+: " env eval ${CMAKE_CURRENT_SOURCE_DIR}/CMakeLists.txt 1)
vx_cli_test(env_bad_time 2 "not a time in seconds: 'soon'" env eval ${vx_env_seeds}/text.txt soon)
vx_cli_test(env_unwritable_plot 1 "no/such/dir\\.svg: cannot write the picture"
  env plot ${vx_env_seeds}/text.txt -o ${CMAKE_CURRENT_BINARY_DIR}/no/such/dir.svg)

# `vxtool config`: a file built with set, listed and read back by type; a missing value, a
# missing file, an unwritable file and a bad command line.
set(vx_config_file ${CMAKE_CURRENT_BINARY_DIR}/config_test.cfg)
add_test(NAME vxtool.config_set_list_get COMMAND sh -c
  "rm -f '${vx_config_file}' && \
   '$<TARGET_FILE:vxtool>' config set '${vx_config_file}' Window 1 2 3 && \
   '$<TARGET_FILE:vxtool>' config set '${vx_config_file}' Recent --add '/a b/c.lws' && \
   '$<TARGET_FILE:vxtool>' config set '${vx_config_file}' Recent --add 'x\\y' && \
   '$<TARGET_FILE:vxtool>' config set '${vx_config_file}' Window 9 8 7 && \
   '$<TARGET_FILE:vxtool>' config list '${vx_config_file}' && \
   '$<TARGET_FILE:vxtool>' config get '${vx_config_file}' Recent --index 0 --type s && \
   '$<TARGET_FILE:vxtool>' config get '${vx_config_file}' Window --type ii && \
   '$<TARGET_FILE:vxtool>' config get '${vx_config_file}' Nope 2>&1; test $? -eq 1")
set_tests_properties(vxtool.config_set_list_get PROPERTIES PASS_REGULAR_EXPRESSION
  "^Window 9 8 7\nRecent \"/a b/c\\.lws\"\nRecent \"x\\\\\\\\y\"\n/a b/c\\.lws\n9\n8\nvxtool config: [^\n]*config_test\\.cfg: no value 'Nope'\n$")
# set refuses to write back a file whose import lost anything (a line over 1023 characters,
# text after a NUL byte, a name without a value), names the first such line and leaves the
# file as it was; --force writes it all the same. Blank lines and spacing are not data.
set(vx_config_lossy ${CMAKE_CURRENT_BINARY_DIR}/config_lossy.cfg)
add_test(NAME vxtool.config_set_keeps_what_it_cannot_write COMMAND sh -c
  "cd '${CMAKE_CURRENT_BINARY_DIR}' && \
   printf '  A   1\\r\\n\\nB 2\\n' > spaced.cfg && '$<TARGET_FILE:vxtool>' config set spaced.cfg C 3 && \
   '$<TARGET_FILE:vxtool>' config list spaced.cfg && \
   { printf 'A 1\\nLong ' && head -c 1100 /dev/zero | tr '\\\\0' x && printf '\\nC 3\\n'; } > long.cfg && \
   printf 'A 1\\nB 2\\nNul a\\000b\\n' > nul.cfg && printf 'A 1\\nNameOnly\\n' > bare.cfg && \
   for f in long nul bare; do \
     cp $f.cfg $f.before && '$<TARGET_FILE:vxtool>' config set $f.cfg A 9 2>&1; test $? -eq 3 && cmp $f.cfg $f.before || exit 1; \
   done && '$<TARGET_FILE:vxtool>' config set bare.cfg A 9 --force && '$<TARGET_FILE:vxtool>' config list bare.cfg")
set_tests_properties(vxtool.config_set_keeps_what_it_cannot_write PROPERTIES PASS_REGULAR_EXPRESSION
  "^A 1\nB 2\nC 3\nvxtool config: long\\.cfg: line 2 would be lost or changed by writing the file back \\(it is longer than 1023 characters\\); nothing written \\(--force writes it all the same\\)\n[^\n]*nul\\.cfg: line 3 [^\n]*\\(it holds a NUL byte\\)[^\n]*\n[^\n]*bare\\.cfg: line 2 [^\n]*\\(it holds a name without a value\\)[^\n]*\nA 9\n$")
vx_cli_test(config_missing_file 3 "absent\\.cfg: cannot open the file" config list ${CMAKE_CURRENT_BINARY_DIR}/absent.cfg)
vx_cli_test(config_unwritable_file 1 "dir\\.cfg: cannot write the file" config set ${CMAKE_CURRENT_BINARY_DIR}/no/such/dir.cfg A 1)
vx_cli_test(config_bad_command_line 2 "get needs a value NAME" config get only-a-file)

# `vxtool plugins`: the example modules scanned into a fresh database, listed and activated;
# an unknown server, a missing directory, a missing database and a bad command line.
set(vx_plugins_db ${CMAKE_CURRENT_BINARY_DIR}/plugins_test_db)
set(vx_plugins_dir ${CMAKE_BINARY_DIR}/examples/plugins)
add_test(NAME vxtool.plugins_scan_list_activate COMMAND sh -c
  "rm -rf '${vx_plugins_db}' && mkdir -p '${vx_plugins_db}' && \
   '$<TARGET_FILE:vxtool>' plugins scan '${vx_plugins_dir}' --db '${vx_plugins_db}' 2>/dev/null && \
   '$<TARGET_FILE:vxtool>' plugins list --class MeshEditTool --db '${vx_plugins_db}' && \
   '$<TARGET_FILE:vxtool>' plugins list --json --db '${vx_plugins_db}' && \
   '$<TARGET_FILE:vxtool>' plugins activate MeshEditTool Example_Box --version 1 --db '${vx_plugins_db}' && \
   { '$<TARGET_FILE:vxtool>' plugins activate Tool Nope --db '${vx_plugins_db}' 2>&1; test $? -eq 1; } && \
   { '$<TARGET_FILE:vxtool>' plugins activate MeshEditTool Example_Box --db '${vx_plugins_db}' 2>&1; test $? -eq 1; }")
set_tests_properties(vxtool.plugins_scan_list_activate PROPERTIES PASS_REGULAR_EXPRESSION
  "scan complete: 7 servers from 4 modules; database.*CLASS         SERVER       USER NAME  MODULE\nMeshEditTool  Example_Box  Box        [^\n]*example_shapes\\.so\n.*\"name\": \"Example_Wrapped\".*activated MeshEditTool:Example_Box: result 0, first local word 1\nvxtool plugins: no server Tool:Nope\nvxtool plugins: MeshEditTool:Example_Box refused the activation \\(result 5\\): it needs local data of its class that only an application can give, or a version \\(its class has none: try --version N\\)")
# Failed modules: one line each, the scan still completes (status 0) and list names them.
set(vx_fixtures_db ${CMAKE_CURRENT_BINARY_DIR}/plugins_fixtures_db)
add_test(NAME vxtool.plugins_scan_failures COMMAND sh -c
  "rm -rf '${vx_fixtures_db}' && mkdir -p '${vx_fixtures_db}' && \
   '$<TARGET_FILE:vxtool>' plugins scan '${CMAKE_BINARY_DIR}/host/fixtures' --time-limit 500 --db '${vx_fixtures_db}' && \
   '$<TARGET_FILE:vxtool>' plugins list --db '${vx_fixtures_db}'")
set_tests_properties(vxtool.plugins_scan_failures PROPERTIES PASS_REGULAR_EXPRESSION
  "fixture_abort\\.so: crashed: SIGABRT\n.*fixture_hang\\.so: timed out after 500 ms\n.*scan complete: 1 server from 1 module; 14 failed.*FAILED MODULE +REASON\n[^\n]*fixture_abort\\.so +crashed: SIGABRT\n")
vx_cli_test(plugins_missing_directory 3 "absent: no such directory" plugins scan ${vx_plugins_dir}/absent)
vx_cli_test(plugins_missing_database 3 "no plug-in database at [^\n]*absent\\.cfg" plugins list --db ${vx_plugins_dir}/absent.cfg)
vx_cli_test(plugins_bad_command_line 2 "unknown subcommand 'frobnicate'" plugins frobnicate)

# `vxtool hub`: a hub started in a fresh directory, its status listed, then stopped.
set(vx_hub_dir ${CMAKE_CURRENT_BINARY_DIR}/hub_test_dir)
add_test(NAME vxtool.hub_start_status_stop COMMAND sh -c
  "rm -rf '${vx_hub_dir}' && \"$0\" hub start --dir '${vx_hub_dir}' && \"$0\" hub status --dir '${vx_hub_dir}' && \
   \"$0\" hub stop --dir '${vx_hub_dir}'; \"$0\" hub frobnicate 2>/dev/null; echo status $?" $<TARGET_FILE:vxtool>)
set_tests_properties(vxtool.hub_start_status_stop PROPERTIES PASS_REGULAR_EXPRESSION
  "^vxhubd: listening on [^\n]*/hub_test_dir/hub.sock\nconnection pid [0-9]+: 0 asset\\(s\\)\nhub stopped\nstatus 2\n$")
