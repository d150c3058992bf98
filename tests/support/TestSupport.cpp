// Shared test doubles live in this folder.
