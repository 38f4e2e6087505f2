/* The annotation section of the test object file: every address a
 * constant, so that the object needs no relocation to be read as it is.
 * Tables (offsets from the section start): 0 version 1.1; 68 version 1.2,
 * PC-relative; 144 version 1.2 with probe words and 32-bit addresses.
 * The section is 228 bytes. */
#include "zca_fixture_macros.inc"

  .section .qzv_notify_tab, "a"

  zca_header_v11 .Lh1, 1, .Ls1, .Ls1_end, .Le1, .Le1_end
  .quad 0x500
  .long 3
  zca_entry_refs .Ls1_name, .Ls1, .Le1_lit5, .Le1
.Ls1:
.Ls1_name: .asciz "obj_v11"
.Ls1_end:
.Le1:
.Le1_lit5: .byte 0x01, 0x35
.Le1_end:

  .zero 2

  zca_header_v12 .Lh2, 1, 1, .Ls2, .Ls2_end, .Le2, .Le2_end
  .quad 0x40
  zca_entry_refs .Ls2_name, .Ls2, .Le2_reg6, .Le2
.Ls2:
.Ls2_name: .asciz "obj_pcrel"
.Ls2_end:
.Le2:
.Le2_reg6: .byte 0x01, 0x56
.Le2_end:

  zca_header_v12 .Lh3, 6, 1, .Ls3, .Ls3_end, .Le3, .Le3_end
  .long 0x90000000, 0
  .long 0x11
  zca_entry_refs .Ls3_name, .Ls3, .Le3_breg1, .Le3
.Ls3:
.Ls3_name: .asciz "obj_probe32"
.Ls3_end:
.Le3:
.Le3_breg1: .byte 0x03, 0x71, 0x80, 0x01
.Le3_end:

  .section .note.GNU-stack, "", @progbits
