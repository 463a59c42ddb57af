DEBUG = True
ROOT_URLCONF = "hello"
SECRET_KEY = "of the tests"
MIDDLEWARE = ["django.middleware.security.SecurityMiddleware", "django.middleware.common.CommonMiddleware"]
