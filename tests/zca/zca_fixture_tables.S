/* The annotation section of the test modules (a shared library and an
 * executable): tables of versions 1.1 and 1.2, every combination of the
 * version 1.2 flags, zero padding between tables, and a table whose
 * expression table comes before its string table. zca_fixture_expected.h
 * lists what a reader must find here.
 *
 * PC-relative entries point at the four target functions through local
 * labels, so the linker resolves them; all other addresses are constants.
 * zca_fixture_section_start and zca_fixture_section_end bracket the
 * section's bytes ("a": loaded with the module). */
#include "zca_fixture_macros.inc"

  .text
  .p2align 4
  .globl zca_fixture_target_a
  .hidden zca_fixture_target_a
  .type zca_fixture_target_a, @function
zca_fixture_target_a:
.Ltarget_a:
  ret
  .size zca_fixture_target_a, .-zca_fixture_target_a

  .p2align 4
  .globl zca_fixture_target_b
  .hidden zca_fixture_target_b
  .type zca_fixture_target_b, @function
zca_fixture_target_b:
.Ltarget_b:
  ret
  .size zca_fixture_target_b, .-zca_fixture_target_b

  .p2align 4
  .globl zca_fixture_target_c
  .hidden zca_fixture_target_c
  .type zca_fixture_target_c, @function
zca_fixture_target_c:
.Ltarget_c:
  ret
  .size zca_fixture_target_c, .-zca_fixture_target_c

  .p2align 4
  .globl zca_fixture_target_d
  .hidden zca_fixture_target_d
  .type zca_fixture_target_d, @function
zca_fixture_target_d:
.Ltarget_d:
  ret
  .size zca_fixture_target_d, .-zca_fixture_target_d

  .section .qzv_notify_tab, "a"
  .globl zca_fixture_section_start
  .hidden zca_fixture_section_start
zca_fixture_section_start:

/* 1: version 1.1, string table then expression table. */
  zca_header_v11 .Lh1, 2, .Ls1, .Ls1_end, .Le1, .Le1_end
  .quad 0x1000
  .long 7
  zca_entry_refs .Ls1_first, .Ls1, .Le1_lit3, .Le1
  .quad 0x2040
  .long 0
  zca_entry_refs .Ls1_second, .Ls1, .Le1_reg5, .Le1
.Ls1:
.Ls1_first: .asciz "v11_first"
.Ls1_second: .asciz "v11_second"
.Ls1_end:
.Le1:
.Le1_lit3: .byte 0x01, 0x33
.Le1_reg5: .byte 0x01, 0x55
.Le1_end:

  .zero 5

/* 2: version 1.2, no flags; expression table before string table. */
  zca_header_v12 .Lh2, 0, 1, .Ls2, .Ls2_end, .Le2, .Le2_end
  .quad 0x401000
  zca_entry_refs .Ls2_plain, .Ls2, .Le2_breg7, .Le2
.Le2:
.Le2_breg7: .byte 0x03, 0x77, 0x7C, 0x00
.Le2_end:
.Ls2:
.Ls2_plain: .asciz "v12_plain"
.Ls2_end:

/* 3: PC-relative. */
  zca_header_v12 .Lh3, 1, 1, .Ls3, .Ls3_end, .Le3, .Le3_end
  .quad .Ltarget_a - .Lh3
  zca_entry_refs .Ls3_pcrel, .Ls3, .Le3_reg0, .Le3
.Ls3:
.Ls3_pcrel: .asciz "v12_pcrel"
.Ls3_end:
.Le3:
.Le3_reg0: .byte 0x01, 0x50
.Le3_end:

/* 4: probe words; the second entry's single operation is no location. */
  zca_header_v12 .Lh4, 2, 2, .Ls4, .Ls4_end, .Le4, .Le4_end
  .quad 0x3000
  .long 0xDEADBEEF
  zca_entry_refs .Ls4_probe, .Ls4, .Le4_lit31, .Le4
  .quad 0x3010
  .long 0
  zca_entry_refs .Ls4_unknown, .Ls4, .Le4_unknown, .Le4
.Ls4:
.Ls4_probe: .asciz "v12_probe"
.Ls4_unknown: .asciz "v12_unknown_op"
.Ls4_end:
.Le4:
.Le4_lit31: .byte 0x01, 0x4F
.Le4_unknown: .byte 0x01, 0x12
.Le4_end:

/* 5: PC-relative with probe words. */
  zca_header_v12 .Lh5, 3, 1, .Ls5, .Ls5_end, .Le5, .Le5_end
  .quad .Ltarget_b - .Lh5
  .long 42
  zca_entry_refs .Ls5_name, .Ls5, .Le5_breg3, .Le5
.Ls5:
.Ls5_name: .asciz "v12_pcrel_probe"
.Ls5_end:
.Le5:
.Le5_breg3: .byte 0x01, 0x73
.Le5_end:

/* 6: 32-bit addresses: bit 31 clear (used as read, upper half included)
 * and set (upper half filled with ones). */
  zca_header_v12 .Lh6, 4, 2, .Ls6, .Ls6_end, .Le6, .Le6_end
  .long 0x00001234, 0x00000001
  zca_entry_refs .Ls6_clear, .Ls6, .Le6_lit0, .Le6
  .long 0x80000000, 0x00000000
  zca_entry_refs .Ls6_set, .Ls6, .Le6_reg31, .Le6
.Ls6:
.Ls6_clear: .asciz "v12_32bit_clear"
.Ls6_set: .asciz "v12_32bit_set"
.Ls6_end:
.Le6:
.Le6_lit0: .byte 0x01, 0x30
.Le6_reg31: .byte 0x01, 0x6F
.Le6_end:

  .zero 3

/* 7: PC-relative 32-bit addresses: a function, and -16 (the header's
 * address less 16). */
  zca_header_v12 .Lh7, 5, 2, .Ls7, .Ls7_end, .Le7, .Le7_end
  .long .Ltarget_c - .Lh7, 0
  zca_entry_refs .Ls7_pcrel, .Ls7, .Le7_breg31, .Le7
  .long 0xFFFFFFF0, 0
  zca_entry_refs .Ls7_back, .Ls7, .Le7_lit1, .Le7
.Ls7:
.Ls7_pcrel: .asciz "v12_pcrel_32bit"
.Ls7_back: .asciz "v12_header_minus_16"
.Ls7_end:
.Le7:
.Le7_breg31: .byte 0x01, 0x8F
.Le7_lit1: .byte 0x01, 0x31
.Le7_end:

/* 8: probe words and 32-bit addresses; an unsupported expression. */
  zca_header_v12 .Lh8, 6, 1, .Ls8, .Ls8_end, .Le8, .Le8_end
  .long 0xFFFFFFF0, 0x12345678
  .long 1
  zca_entry_refs .Ls8_name, .Ls8, .Le8_constu, .Le8
.Ls8:
.Ls8_name: .asciz "v12_probe_32bit_unsupported"
.Ls8_end:
.Le8:
.Le8_constu: .byte 0x02, 0x10, 0x05
.Le8_end:

/* 9: all three flags; register 31 plus 100. */
  zca_header_v12 .Lh9, 7, 1, .Ls9, .Ls9_end, .Le9, .Le9_end
  .long .Ltarget_d - .Lh9, 0
  .long 0xFFFFFFFF
  zca_entry_refs .Ls9_name, .Ls9, .Le9_breg31, .Le9
.Ls9:
.Ls9_name: .asciz "v12_all_flags"
.Ls9_end:
.Le9:
.Le9_breg31: .byte 0x03, 0x8F, 0xE4, 0x00
.Le9_end:

  .zero 4
  .globl zca_fixture_section_end
  .hidden zca_fixture_section_end
zca_fixture_section_end:

/* The offset of table 7's header, for the "header less 16" entry. */
  .section .rodata
  .p2align 3
  .globl zca_fixture_table7_offset
  .hidden zca_fixture_table7_offset
zca_fixture_table7_offset:
  .quad .Lh7 - zca_fixture_section_start

  .section .note.GNU-stack, "", @progbits
