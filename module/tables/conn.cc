// conn table getters (being written).
