// placeholder, filled in shortly
