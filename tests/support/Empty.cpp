// Keeps the support library non-empty before the first helper lands.
