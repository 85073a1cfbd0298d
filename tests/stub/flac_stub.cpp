// A libFLAC with only the first three entry points the loader asks for, so
// that loading it must stop at the fourth. Nothing here is ever called.
extern "C" {
void* FLAC__stream_decoder_new() { return nullptr; }
void FLAC__stream_decoder_delete(void*) {}
int FLAC__stream_decoder_set_md5_checking(void*, int) { return 0; }
}
