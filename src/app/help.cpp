#include "app/help.h"

#include "platform/names.h"

namespace tavrin {

std::string help_text(bool developer) {
  const std::string program(kProgramFile);
  std::string t;
  auto line = [&t](const std::string& s) {
    t += s;
    t += '\n';
  };
  line(kBanner);
  line("Copyright (c) 2026 the Tavrin-DTS developers");
  line("");
  line("Usage:");
  line("  " + program + " <input.wav> <output.dts> [options]");
  line("  " + program +
       " <input.pcm> <output.dts> --raw --pcm-format <fmt> --sample-rate <Hz> --layout <layout> [options]");
  line("");
  line("Options:");
  line("  -b, --bitrate <kbps>     Output bitrate: 768, 1024, 1152 or 1411");
  line(std::string(27, ' ') + "(1411 maps to 1411.2 kbps; default 768)");
  line("      --raw                Input is headerless interleaved PCM");
  line("      --pcm-format <fmt>   Raw PCM: s16le, s24le, s32le, f32le");
  line("      --sample-rate <Hz>   Raw PCM: 44100 or 48000");
  line("      --layout <layout>    Raw PCM: 2.0, 3.0, 4.0, 5.0 or 5.1");
  line("      --legacy             Stereo: stable legacy encoder");
  line("      --production-candidate");
  line(std::string(27, ' ') + "Stereo: validated candidate-v2 encoder");
  line("      --matrix-decode      Stereo -> Tavrin L/C/R/S matrix bed, encoded 5.1");
  line("      --bass-management    Matrix: LR4 crossover, bass redirected to LFE");
  line("      --crossover <Hz>     Bass management crossover, 40..120 (default 80)");
  line("      --thx                THX preset: enable LR4 bass management, fixed 80 Hz");
  line("      --rear-delay <ms>    Matrix surround delay, 0..40 (default 20)");
  line("      --lfe-gain <dB>      Generated LFE gain, -12..+6 (default 0)");
  line("  -q, --quiet              Suppress normal status/progress output");
  line("  -h, --help               Show this help");
  line("      --version            Show version");
  // One blank further right than the other descriptions: the published help
  // has always looked like this and scripts compare it.
  line("      --help-dev            Show developer/experimental options");
  line("");
  line("WAVE input:");
  line("  RIFF/WAVE or RF64/WAVE, 44.1 or 48 kHz");
  line("  PCM 16/24/32-bit or IEEE float32");
  line("FLAC input:");
  line("  Native 44.1/48 kHz, 2.0/3.0/4.0/5.0/5.1");
  line("  Requires " + std::string(kFlacLibraryPlace));
  // Belongs to the WAVE section by meaning, but this is where it has always
  // been printed.
  line("  Stereo, or 3.0/4.0/5.0/5.1 WAVEFORMATEXTENSIBLE");
  line("");
  line("Raw PCM input:");
  line("  Interleaved s16le/s24le/s32le/f32le, 44.1 or 48 kHz");
  line("  2.0 order: L R");
  line("  3.0 order: L R C");
  line("  4.0 order: L R SL SR");
  line("  5.0 order: L R C SL SR");
  line("  5.1 order: L R C LFE SL SR");
  line("");
  line("Output:");
  line("  DTS Coherent Acoustics Core elementary stream (.dts)");
  line("");
  line("Codec policy:");
  line("  Stereo defaults to the stable legacy encoder.");
  line("  3.0/4.0/5.0/5.1 use the adaptive multichannel Core path.");
  if (developer) {
    line("");
    line("Developer options:");
    line("      --experimental-span24 <mode>");
    line("          modes: absolute, absolute-tmode, absolute-jump,");
    line("                 candidate, candidate-jump, log, mask");
    line("");
    line("Experimental span24 modes are stereo-only.");
  }
  return t;
}

void print_help(std::ostream& out, bool developer) {
  out << help_text(developer);
  out.flush();
}

}  // namespace tavrin
