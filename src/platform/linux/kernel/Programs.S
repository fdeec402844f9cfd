// The compiled programs, as the daemon's own bytes.
        .section .rodata
        .balign 8
        .globl tandorPrograms
tandorPrograms:
        .incbin TANDOR_PROGRAMS
        .globl tandorProgramsEnd
tandorProgramsEnd:
        .section .note.GNU-stack, "", %progbits
