// Placeholder: this unit is being written.
