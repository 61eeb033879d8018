# The sample programs of examples/, in the order `vxtool demo` runs them. Each <name>.c holds
# `int <name>_sample(FILE *out, const char *dir)` and a main (left out under
# VX_SAMPLE_NO_MAIN) that runs it on standard output and the current directory.
set(VX_SAMPLES
  shot ordered global_list
  word_count btree_zone_actions
  port_clients
  undo_edits
  image_blur image_mipmap
  thread_sum thread_control
  plugin_port plugin_scan
  envelope_bounce envelope_shapes
  iff_roundtrip save_state
  config_file
  hub_share)
