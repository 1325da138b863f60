# The built-in host names of the endpoint registry (KIHostService) are values of
# the deployment, not of the code. They are kept in one JSON file, by default
# config/deployment/default.json (hosts under the reserved .example domain);
# build with -DKRCOMMON_DEPLOYMENT_FILE=<file> to embed another deployment.
#
# The file is one object of bare host names (no scheme, no path):
#   accountHost accountHost2 accountHost3    the three account services
#   captchaHost1 captchaHost2 captchaHost3   the three captcha services
#   channelHost interfaceHost imageHost      keep-alive channel, account interface, user-centre images
#   oauthHost registHost webHost             OAuth login, registration, static web pages
#   paycenter paygateway pushgateway         payment-centre agent, payment receipts, push gateway
#
# Configuring turns the hosts into the registry's default URLs, encodes each in
# Base64 (the registry decodes them on every read) and writes them as one X-macro
# table, KRCOMMON_HOST_DEFAULT(property, "base64"), to
# <build>/generated/krcommon/config/KIHostServiceDefaults.inc for the library.
# Editing the file re-runs the configuration. The test suite gets the file's
# path as KRCOMMON_DEPLOYMENT_FILE so that it checks against the same hosts.

# Standard Base64 (RFC 4648) of the UTF-8 bytes of `text`, with padding.
function(krcommon_base64 out text)
  set(alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")
  string(HEX "${text}" hex)
  string(LENGTH "${hex}" hexLength)
  set(result "")
  set(pos 0)
  while(pos LESS hexLength)
    math(EXPR left "${hexLength} - ${pos}")
    if(left GREATER_EQUAL 6)
      set(count 3)
      string(SUBSTRING "${hex}" ${pos} 6 group)
    else()
      math(EXPR count "${left} / 2")
      string(SUBSTRING "${hex}" ${pos} ${left} group)
      if(count EQUAL 1)
        string(APPEND group "0000")
      else()
        string(APPEND group "00")
      endif()
    endif()
    math(EXPR bits "0x${group}")
    foreach(shift 18 12 6 0)
      math(EXPR index "(${bits} >> ${shift}) & 63")
      string(SUBSTRING "${alphabet}" ${index} 1 letter)
      string(APPEND result "${letter}")
    endforeach()
    if(count EQUAL 1)
      string(REGEX REPLACE "..$" "==" result "${result}")
    elseif(count EQUAL 2)
      string(REGEX REPLACE ".$" "=" result "${result}")
    endif()
    math(EXPR pos "${pos} + 6")
  endwhile()
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

if(NOT EXISTS "${KRCOMMON_DEPLOYMENT_FILE}")
  message(FATAL_ERROR "KRCOMMON_DEPLOYMENT_FILE: no file at ${KRCOMMON_DEPLOYMENT_FILE}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${KRCOMMON_DEPLOYMENT_FILE}")
file(READ "${KRCOMMON_DEPLOYMENT_FILE}" _krcommon_deployment)

foreach(_key accountHost accountHost2 accountHost3 captchaHost1 captchaHost2 captchaHost3 channelHost
        interfaceHost imageHost oauthHost registHost webHost paycenter paygateway pushgateway)
  string(JSON _host ERROR_VARIABLE _error GET "${_krcommon_deployment}" ${_key})
  if(_error OR _host STREQUAL "" OR NOT _host MATCHES "^[A-Za-z0-9.:_-]+$")
    message(FATAL_ERROR "${KRCOMMON_DEPLOYMENT_FILE}: \"${_key}\" must be a bare host name (${_error})")
  endif()
  set(_host_${_key} "${_host}")
endforeach()

# Property of the registry, then its default URL or host.
set(_krcommon_defaults
  login_main_host              "${_host_accountHost}"
  login_main_url_noCore        "https://${_host_accountHost}"
  login_main_url               "https://${_host_accountHost}/kruser.core.login/v3"
  login_master_url             "https://${_host_accountHost2}/kruser.core.login/v3"
  login_primary_url            "https://${_host_accountHost3}/kruser.core.login/v3"
  provider_token_url           "https://${_host_accountHost}/v1/auth/provider/token"
  singnin_provider_url         "https://${_host_accountHost}/v1/auth/signin/with/provider"
  userme_getuserinfo_url       "https://${_host_accountHost}/v1/user/me"
  refresh_accesstoken_url      "https://${_host_accountHost}/v1/auth/token"
  verify_Code_Server1_url      "https://${_host_captchaHost1}"
  verifyCodeServer2            "https://${_host_captchaHost2}"
  verifyCodeServer3            "https://${_host_captchaHost3}"
  keep_alive_url               "https://${_host_channelHost}"
  modify_userinfo_url          "https://${_host_interfaceHost}"
  recomend_avatar_url          "https://${_host_imageHost}"
  kr_oauth_login_url           "https://${_host_oauthHost}"
  regist_main_url              "https://${_host_registHost}"
  staticHost                   "${_host_webHost}"
  realNameSmsH5                "https://${_host_webHost}/verified_m/"
  defaultReviewUrl             "https://${_host_webHost}/krcaptcha/mobileSDK/ios.html"
  kr_product_id_url            "https://${_host_paycenter}"
  kr_generate_order_url        "https://${_host_paycenter}"
  kr_mmtp_generate_order_url   "https://${_host_paycenter}"
  kr_report_normal_receipt_url "https://${_host_paygateway}/payproxy"
  kr_push_notification_url     "https://${_host_pushgateway}"
  kr_kruser_ssl_main_url       "https://${_host_accountHost}"
  kr_kruser_ssl_master_url     "https://${_host_accountHost2}"
  kr_kruser_ssl_primary_url    "https://${_host_accountHost3}")

set(_krcommon_table "// Generated from ${KRCOMMON_DEPLOYMENT_FILE} by cmake/KRCommonDeployment.cmake; do not edit.\n")
list(LENGTH _krcommon_defaults _count)
math(EXPR _last "${_count} - 1")
foreach(_i RANGE 0 ${_last} 2)
  math(EXPR _j "${_i} + 1")
  list(GET _krcommon_defaults ${_i} _property)
  list(GET _krcommon_defaults ${_j} _url)
  krcommon_base64(_encoded "${_url}")
  string(APPEND _krcommon_table "KRCOMMON_HOST_DEFAULT(${_property}, \"${_encoded}\")\n")
endforeach()

set(KRCOMMON_GENERATED_DIR "${PROJECT_BINARY_DIR}/generated")
# Written only when it changes, so that a re-configure rebuilds nothing needlessly.
file(CONFIGURE OUTPUT "${KRCOMMON_GENERATED_DIR}/krcommon/config/KIHostServiceDefaults.inc"
     CONTENT "${_krcommon_table}" @ONLY)
target_include_directories(krcommon_objects PRIVATE "${KRCOMMON_GENERATED_DIR}")

# The tests are added later in the top-level file; hand them the file's path once they exist.
function(_krcommon_deployment_for_tests)
  if(TARGET krcommon_tests)
    target_compile_definitions(krcommon_tests PRIVATE "KRCOMMON_DEPLOYMENT_FILE=\"${KRCOMMON_DEPLOYMENT_FILE}\"")
  endif()
endfunction()
cmake_language(DEFER CALL _krcommon_deployment_for_tests)
