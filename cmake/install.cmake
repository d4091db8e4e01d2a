# Installation of the plug-in bundle and its link in the browsers' plug-in folder (being written).
