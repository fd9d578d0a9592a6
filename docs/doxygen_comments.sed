# Turns the plain comments of a header into documentation, for Doxygen: what stands above a declaration, what stands
# behind one, and, in front of the #pragma, what the file is for. Lines stay lines, so that a complaint names the right
# one. Nobody needs to document what cannot be called.
s#^.*= delete;$##
s%^#pragma once$%/// @file%
s#^\( *\)//\( \|$\)#\1///\2#
s#\([;,{] *\)// #\1///< #
