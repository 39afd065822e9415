# Runs at install time, with VORN_APP_ID, VORN_BIN_SUBDIR, VORN_DATA_SUBDIR, VORN_TEMPLATE
# and VORN_STAGING set: writes the launcher with the installed app's full path (the
# prefix is known only now, and may be one that is not on PATH) and installs it.
set(VORN_TRY_EXEC "${CMAKE_INSTALL_PREFIX}/${VORN_BIN_SUBDIR}/vorn")
if(VORN_TRY_EXEC MATCHES "[\"`$\\\\%]")
  # A path that the launcher's Exec could carry only escaped: the name alone, on PATH.
  set(VORN_EXEC "vorn")
  set(VORN_TRY_EXEC "vorn")
elseif(VORN_TRY_EXEC MATCHES "[ \t'><~|&;*?#()]")
  set(VORN_EXEC "\"${VORN_TRY_EXEC}\"")
else()
  set(VORN_EXEC "${VORN_TRY_EXEC}")
endif()
configure_file(${VORN_TEMPLATE} ${VORN_STAGING}/${VORN_APP_ID}.desktop @ONLY)
file(INSTALL ${VORN_STAGING}/${VORN_APP_ID}.desktop
     DESTINATION "${CMAKE_INSTALL_PREFIX}/${VORN_DATA_SUBDIR}/applications")
