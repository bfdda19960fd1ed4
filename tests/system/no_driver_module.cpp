// A library without the descriptor that makes it a driver module.
