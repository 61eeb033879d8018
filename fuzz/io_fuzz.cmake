# Readers of outside data in io/: the IFF reader (with the binary load state) and the text
# load state.
vx_fuzz(fuzz_iff iff_fuzz.cpp)
vx_fuzz(fuzz_textstate textstate_fuzz.cpp)
