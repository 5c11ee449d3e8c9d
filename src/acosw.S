/* Placeholder: the context switch is being written. */
.section .note.GNU-stack,"",@progbits
